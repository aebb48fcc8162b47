#include "VerdoDriverCore/Network/CertificateFile.h"

#include "VerdoDriverCore/Values/PyError.h"

#include <cerrno>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

#include <curl/curl.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace verdo {
namespace {

struct OpenSSLFree {
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(EVP_ENCODE_CTX* context) const { EVP_ENCODE_CTX_free(context); }
};

std::vector<unsigned char> decodeBase64(const std::string& text) {
  std::vector<unsigned char> bytes(text.size() + 1);
  const std::unique_ptr<EVP_ENCODE_CTX, OpenSSLFree> context(EVP_ENCODE_CTX_new());
  int size = 0;
  int rest = 0;
  EVP_DecodeInit(context.get());
  if (EVP_DecodeUpdate(context.get(), bytes.data(), &size,
                       reinterpret_cast<const unsigned char*>(text.data()),
                       static_cast<int>(text.size())) < 0 ||
      EVP_DecodeFinal(context.get(), bytes.data() + size, &rest) < 0) {
    return {};
  }
  bytes.resize(static_cast<std::size_t>(size) + static_cast<std::size_t>(rest));
  return bytes;
}

/// The certificate as PEM text; empty when the bytes are none.
std::string pemOf(const std::vector<unsigned char>& der) {
  const unsigned char* at = der.data();
  const std::unique_ptr<X509, OpenSSLFree> certificate(
      d2i_X509(nullptr, &at, static_cast<long>(der.size())));
  if (!certificate) return {};
  const std::unique_ptr<BIO, OpenSSLFree> memory(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(memory.get(), certificate.get());
  char* text = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &text);
  return {text, static_cast<std::size_t>(size)};
}

}  // namespace

std::string loadCertificates(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw PyError("OSError", pyErrnoText(errno, path));
  std::string certificates;
  std::string block;
  bool inside = false;
  for (std::string line; std::getline(file, line);) {
    if (line.ends_with('\r')) line.pop_back();
    if (line.starts_with("-----BEGIN CERTIFICATE")) {
      inside = true;
      block.clear();
    } else if (inside && line.starts_with("-----END CERTIFICATE")) {
      inside = false;
      certificates += pemOf(decodeBase64(block));
    } else if (inside) {
      block += line;
    }
  }
  if (file.bad()) throw PyError("OSError", pyErrnoText(errno, path));
  if (certificates.empty()) throw PyError("SSLError", "no certificate in " + path);
  return certificates;
}

std::string loadCertificatesBesideRoots(const std::string& path) {
  const char* const rootsPath = curl_version_info(CURLVERSION_NOW)->cainfo;
  std::ifstream file(rootsPath ? rootsPath : "");  // without roots, there are none beside
  return std::string(std::istreambuf_iterator<char>(file), {}) + "\n" + loadCertificates(path);
}

}  // namespace verdo
