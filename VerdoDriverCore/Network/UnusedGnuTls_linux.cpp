// libcurl may bring GnuTLS along, for protocols that are never spoken here. GnuTLS makes itself
// ready while a program is loaded, unless the program has this function (GNUTLS_SKIP_GLOBAL_INIT in
// its manual); whoever does use it makes it ready on their own. Saves nearly a megabyte of memory.
extern "C" int _gnutls_global_init_skip();  // NOLINT(bugprone-reserved-identifier): GnuTLS's name
extern "C" int _gnutls_global_init_skip() { return 1; }  // NOLINT(bugprone-reserved-identifier)
