#include "VerdoDriverCore/Network/CertificateFile.h"
#include "VerdoDriverCore/Values/PyError.h"
#include "tests/Support/TempDir.h"

#include <memory>
#include <regex>

#include <gmock/gmock.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace verdo {
namespace {

using test::TempDir;

template <typename T, void (*release)(T*)>
struct Free {
  void operator()(T* object) const { release(object); }
};

std::string textOf(BIO* memory) {
  char* text = nullptr;
  const auto size = BIO_get_mem_data(memory, &text);
  return {text, static_cast<std::size_t>(size)};
}

struct Pem {
  std::string certificate, key;
};

/// A self-signed certificate and its key.
Pem makeCertificate(const char* name) {
  const std::unique_ptr<EVP_PKEY, Free<EVP_PKEY, EVP_PKEY_free>> key(EVP_EC_gen("P-256"));
  const std::unique_ptr<X509, Free<X509, X509_free>> x509(X509_new());
  ASN1_INTEGER_set(X509_get_serialNumber(x509.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(x509.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(x509.get()), 3600);
  X509_set_pubkey(x509.get(), key.get());
  X509_NAME_add_entry_by_txt(X509_get_subject_name(x509.get()), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(name), -1, -1, 0);
  X509_set_issuer_name(x509.get(), X509_get_subject_name(x509.get()));
  X509_sign(x509.get(), key.get(), EVP_sha256());
  const std::unique_ptr<BIO, Free<BIO, BIO_free_all>> certificate(BIO_new(BIO_s_mem()));
  const std::unique_ptr<BIO, Free<BIO, BIO_free_all>> secret(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(certificate.get(), x509.get());
  PEM_write_bio_PrivateKey(secret.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  return {textOf(certificate.get()), textOf(secret.get())};
}

TEST(CertificateFile, TakesEveryValidCertificateAndNothingElse) {
  const TempDir directory;
  const Pem one = makeCertificate("one");
  const Pem two = makeCertificate("two");
  const auto with = [](const std::string& text, const char* what, const char* by) {
    return std::regex_replace(text, std::regex(what), by);
  };
  const std::string garbage =
      "-----BEGIN CERTIFICATE-----\n!!!! no base64\n-----END CERTIFICATE-----\n";
  const std::string notDer = "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n";
  const std::string empty = "-----BEGIN CERTIFICATE-----\n-----END CERTIFICATE-----\n";
  const struct {
    const char* what;
    std::string text, certificates;
  } cases[] = {
      {"one", one.certificate, one.certificate},
      {"two", one.certificate + two.certificate, one.certificate + two.certificate},
      {"CRLF", with(one.certificate, "\n", "\r\n"), one.certificate},
      {"blank lines", with(one.certificate, "\n", "\n\n"), one.certificate},
      {"no last line end", one.certificate.substr(0, one.certificate.size() - 1), one.certificate},
      {"among others", "Comment\n" + one.key + garbage + notDer + empty + two.certificate + "tail",
       two.certificate},
      {"unfinished block first", "-----BEGIN CERTIFICATE-----\nAAAA\n" + one.certificate,
       one.certificate},
  };
  for (const auto& [what, text, certificates] : cases) {
    EXPECT_EQ(loadCertificates(directory.write("ca.pem", text)), certificates) << what;
  }
  const std::string unusable[] = {"",
                                  "text",
                                  one.key,
                                  garbage,
                                  notDer,
                                  empty,
                                  "-----BEGIN CERTIFICATE-----\nAAAA",
                                  with(one.certificate, "-----END.*\n", "")};
  for (const auto& text : unusable) {
    const auto path = directory.write("ca.pem", text);
    try {
      loadCertificates(path);
      ADD_FAILURE() << "accepted: " << text;
    } catch (const PyError& error) {
      EXPECT_EQ(pyDescribe(error), "SSLError: no certificate in " + path);
    }
  }
}

TEST(CertificateFile, SaysWhyItCannotBeRead) {
  const TempDir directory;
  const struct {
    std::string path, text;
  } cases[] = {
      {directory / "missing", "OSError: [Errno 2] No such file or directory: '"},
      {directory.path(), "OSError: [Errno 21] Is a directory: '"},
  };
  for (const auto& [path, text] : cases) {
    try {
      loadCertificates(path);
      ADD_FAILURE() << "read: " << path;
    } catch (const PyError& error) {
      EXPECT_EQ(pyDescribe(error), text + path + "'");
    }
  }
}

}  // namespace
}  // namespace verdo
