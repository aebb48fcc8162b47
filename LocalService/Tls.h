#pragma once

#include <filesystem>
#include <memory>

#include <openssl/ssl.h>

namespace verdo::local {

struct SslCtxDeleter {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
struct SslDeleter {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};
using SslCtxPtr = std::unique_ptr<SSL_CTX, SslCtxDeleter>;
using SslPtr = std::unique_ptr<SSL, SslDeleter>;

/// A server context for the certificate chain and its private key, both PEM. Throws
/// std::runtime_error that names the file which could not be used.
SslCtxPtr makeServerContext(const std::filesystem::path& certificate,
                            const std::filesystem::path& privateKey);

}  // namespace verdo::local
