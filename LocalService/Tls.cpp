#include "LocalService/Tls.h"

#include <stdexcept>
#include <string>

#include <openssl/err.h>

namespace verdo::local {
namespace {

[[noreturn]] void fail(const std::string& what) {
  const auto code = ERR_peek_error();
  const char* reason = code != 0 ? ERR_reason_error_string(code) : nullptr;
  ERR_clear_error();
  throw std::runtime_error(what + ": " + (reason != nullptr ? reason : "unknown TLS error"));
}

}  // namespace

SslCtxPtr makeServerContext(const std::filesystem::path& certificate,
                            const std::filesystem::path& privateKey) {
  SslCtxPtr context(SSL_CTX_new(TLS_server_method()));
  if (!context) fail("cannot set up TLS");
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  // A client that just closes its connection, as a cancelled call does, is not an error here.
  SSL_CTX_set_options(context.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
  if (SSL_CTX_use_certificate_chain_file(context.get(), certificate.c_str()) != 1) {
    fail("cannot use the certificate " + certificate.string());
  }
  if (SSL_CTX_use_PrivateKey_file(context.get(), privateKey.c_str(), SSL_FILETYPE_PEM) != 1) {
    fail("cannot use the private key " + privateKey.string());
  }
  if (SSL_CTX_check_private_key(context.get()) != 1) {
    fail("the private key " + privateKey.string() + " does not belong to " + certificate.string());
  }
  return context;
}

}  // namespace verdo::local
