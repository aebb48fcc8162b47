#include "VerdoDriverCore/Network/CertificateFile.h"
#include "tests/Support/ApiFixture.h"
#include "tests/Support/Certificates.h"

#include <sys/stat.h>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* kShaOfAbc =
    "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr const char* kShaOfNothing =
    "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

std::string failureOfDownload(const std::function<void()>& download) {
  try {
    download();
    return "";
  } catch (const PyError& error) {
    return pyDescribe(error);
  }
}

class Download : public ApiFixture {
 protected:
  std::string fetch(const std::string& url) { return api->download(url, path("file"), 5s); }
};

TEST_F(Download, FileIsReadableByOthersOrNotTheOneServed) {
  const auto address = service.files().add({.name = "a b", .content = "abc"});
  for (const auto& url : {address, service.url() + address}) {
    EXPECT_EQ(fetch(url), kShaOfAbc);
    EXPECT_EQ(contentOf(path("file")), "abc");
    struct stat status{};
    ASSERT_EQ(::stat(path("file").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
  }
  // A longer file of before is not left at the end of a shorter one.
  EXPECT_EQ(fetch(service.files().add({.name = "none", .content = ""})), kShaOfNothing);
  EXPECT_EQ(contentOf(path("file")), "");
}

TEST_F(Download, FailureLeavesAFileOrIsNotNamed) {
  struct Case {
    local::FileSpec file;
    const char* failure;
  };
  const Case cases[] = {
      {{.name = "a", .content = "x", .status = 404}, "HTTPError: HTTP 404"},
      {{.name = "b", .content = "x", .status = 500}, "HTTPError: HTTP 500"},
      {{.name = "c", .content = "x", .status = 304}, "HTTPError: HTTP 304"},
      {{.name = "d", .content = std::string(100'000, 'x'), .truncateAfter = 50'000}, "URLError: "},
      {{.name = "e", .redirect = "ftp://127.0.0.1/x"}, "URLError: "},
      {{.name = "f", .redirect = "/files/f"}, "URLError: Maximum (20) redirects followed"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.failure);
    const auto address = service.files().add(row.file);
    EXPECT_THAT(failureOfDownload([&] { fetch(address); }), StartsWith(row.failure));
    EXPECT_FALSE(std::filesystem::exists(path("file")));
  }
  EXPECT_EQ(failureOfDownload([&] { fetch(":// "); }), "ValueError: bad file URL");
  const auto good = service.files().add({.name = "g", .content = "abc"});
  const auto nowhere = path("no/such/directory");
  EXPECT_EQ(failureOfDownload([&] { api->download(good, nowhere, 5s); }),
            "OSError: cannot write " + nowhere);
  // What somebody planted there is not written through.
  std::ofstream(path("precious")) << "precious";
  std::filesystem::create_symlink(path("precious"), path("link"));
  EXPECT_EQ(failureOfDownload([&] { api->download(good, path("link"), 5s); }),
            "OSError: cannot write " + path("link"));
  EXPECT_EQ(contentOf(path("precious")), "precious");
}

/// The service over TLS, with a certificate of an authority of the test's own.
class Pinned : public ApiFixture {
 protected:
  Pinned() : Pinned(std::make_unique<Certificates>()) {}

  std::string helloWith(const std::string& authorities) {
    HttpSession::Options trust;
    if (!authorities.empty()) trust.caCertificates = loadCertificates(authorities);
    make(options(), trust);
    return failureOf([&] { api->hello(); });
  }

  std::unique_ptr<Certificates> ours;

 private:
  explicit Pinned(std::unique_ptr<Certificates> made)
      : ApiFixture({.certificate = made->certificate(), .privateKey = made->privateKey()}),
        ours(std::move(made)) {}
};

TEST_F(Pinned, CertificateOfAnotherAuthorityIsAccepted) {
  const Certificates other;
  EXPECT_EQ(helloWith(ours->authority()), "");
  EXPECT_THAT(helloWith(other.authority()), StartsWith("GET /api/driver/hello -> URLError: "));
  // The system's roots do not know it.
  EXPECT_THAT(helloWith(""), StartsWith("GET /api/driver/hello -> URLError: "));
  EXPECT_EQ(service.requests().count(), 1u);

  std::ofstream(path("both.pem"))
      << "# ours and another's\r\n"
      << contentOf(other.authority())
      << "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"
      << contentOf(ours->authority());
  EXPECT_EQ(helloWith(path("both.pem")), "");
}

}  // namespace
}  // namespace verdo::test
