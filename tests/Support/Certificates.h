#pragma once

#include "tests/Support/TempDir.h"

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace verdo::test {

/// A certificate that is its own authority, and its key, as PEM files.
class Certificates {
 public:
  struct Options {
    const char* name = "IP:127.0.0.1";  ///< that it is made out to
    // When it is valid, seconds from now.
    long from = -3600;
    long until = 24 * 3600;
  };

  Certificates() : Certificates(Options{}) {}
  explicit Certificates(const Options& options) {
    const auto key = owned(EVP_EC_gen("P-256"), &EVP_PKEY_free);
    const auto made = owned(X509_new(), &X509_free);
    X509_set_version(made.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(made.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(made.get()), options.from);
    X509_gmtime_adj(X509_getm_notAfter(made.get()), options.until);
    X509_set_pubkey(made.get(), key.get());
    // Two of the same name could not be told apart.
    const std::string name = "CA " + directory_.path().substr(directory_.path().size() - 6);
    X509_NAME* subject = X509_get_subject_name(made.get());
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
    X509_set_issuer_name(made.get(), subject);
    extend(made.get(), NID_basic_constraints, "critical,CA:TRUE");
    extend(made.get(), NID_subject_alt_name, options.name);
    check(X509_sign(made.get(), key.get(), EVP_sha256()) > 0);
    check(PEM_write_X509(owned(std::fopen(certificate().c_str(), "w"), &std::fclose).get(),
                         made.get()) == 1);
    check(PEM_write_PrivateKey(owned(std::fopen(privateKey().c_str(), "w"), &std::fclose).get(),
                               key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1);
  }
  /// What a client has to trust.
  std::string authority() const { return certificate(); }
  std::string certificate() const { return directory_ / "certificate.pem"; }
  std::string privateKey() const { return directory_ / "key.pem"; }

 private:
  static void check(bool worked) {
    if (!worked) throw std::runtime_error("cannot make a certificate");
  }

  template <typename Object, typename Free>
  static std::unique_ptr<Object, Free> owned(Object* object, Free free) {
    check(object != nullptr);
    return {object, free};
  }

  static void extend(X509* certificate, int kind, const char* value) {
    const auto extension =
        owned(X509V3_EXT_conf_nid(nullptr, nullptr, kind, value), &X509_EXTENSION_free);
    check(X509_add_ext(certificate, extension.get(), -1) == 1);
  }

  TempDir directory_;
};

}  // namespace verdo::test
