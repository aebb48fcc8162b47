#include "tests/Support/Certificates.h"

#include <cstdio>
#include <memory>
#include <stdexcept>

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace verdo::test {
namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;
using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

void check(bool worked) {
  if (!worked) throw std::runtime_error("cannot make a certificate");
}

Key makeKey() {
  Key key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
  check(key != nullptr);
  return key;
}

void extend(X509* certificate, int kind, const char* value) {
  const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> extension(
      X509V3_EXT_conf_nid(nullptr, nullptr, kind, value), &X509_EXTENSION_free);
  check(extension && X509_add_ext(certificate, extension.get(), -1) == 1);
}

/// `issuer` null: signed by itself.
Certificate makeCertificate(const std::string& name, EVP_PKEY* key, X509* issuer,
                            EVP_PKEY* issuerKey) {
  Certificate made(X509_new(), &X509_free);
  check(made != nullptr);
  X509_set_version(made.get(), X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(made.get()), issuer ? 2 : 1);
  X509_gmtime_adj(X509_getm_notBefore(made.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(made.get()), 24 * 3600);
  X509_set_pubkey(made.get(), key);
  X509_NAME* subject = X509_get_subject_name(made.get());
  X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
  X509_set_issuer_name(made.get(), issuer ? X509_get_subject_name(issuer) : subject);
  extend(made.get(), NID_basic_constraints, issuer ? "critical,CA:FALSE" : "critical,CA:TRUE");
  if (issuer) extend(made.get(), NID_subject_alt_name, "IP:127.0.0.1");
  check(X509_sign(made.get(), issuerKey, EVP_sha256()) > 0);
  return made;
}

File create(const std::string& path) {
  File file(std::fopen(path.c_str(), "w"), &std::fclose);
  check(file != nullptr);
  return file;
}

}  // namespace

Certificates::Certificates() {
  const Key authorityKey = makeKey();
  // Two authorities of the same name could not be told apart.
  const std::string name = "CA " + directory_.path().substr(directory_.path().size() - 6);
  const auto issuer = makeCertificate(name, authorityKey.get(), nullptr, authorityKey.get());
  const Key key = makeKey();
  const auto leaf = makeCertificate("127.0.0.1", key.get(), issuer.get(), authorityKey.get());
  check(PEM_write_X509(create(authority()).get(), issuer.get()) == 1);
  check(PEM_write_X509(create(certificate()).get(), leaf.get()) == 1);
  check(PEM_write_PrivateKey(create(privateKey()).get(), key.get(), nullptr, nullptr, 0, nullptr,
                             nullptr) == 1);
}

}  // namespace verdo::test
