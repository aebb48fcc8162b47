#include "LocalService/Sha256.h"
#include "LocalService/Tls.h"
#include "VerdoDriverCore/Network/BodyQueue.h"
#include "VerdoDriverCore/Network/CertificateFile.h"
#include "VerdoDriverCore/System/Files.h"
#include "tests/Support/ApiFixture.h"
#include "tests/Support/Certificates.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/Listener.h"

#include <cerrno>

#include <curl/curl.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/conf.h>
#include <openssl/pem.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

thread_local bool closeFails = false;

}  // namespace

/// Stands before the system's own, and can tell a thread what it hears at the end of a file on a
/// network disk that is full.
extern "C" int close(int fd) {
  const auto result = static_cast<int>(::syscall(SYS_close, fd));
  if (!closeFails) return result;
  errno = ENOSPC;
  return -1;
}

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using testing::StartsWith;

class Download : public ApiFixture {
 protected:
  std::string fetch(const std::string& url) { return api->download(url, path("file"), 5s); }
};

TEST_F(Download, FailureLeavesAFileOrIsNotNamed) {
  const std::pair<local::FileSpec, const char*> cases[] = {
      {{.name = "c", .content = "x", .status = 304}, "HTTPError: HTTP 304"},
      {{.name = "d", .content = std::string(100'000, 'x'), .truncateAfter = 50'000}, "URLError: "},
      {{.name = "e", .redirect = "ftp://127.0.0.1/x"}, "URLError: "},
      {{.name = "f", .redirect = "/files/f"}, "URLError: Maximum (20) redirects followed"},
  };
  for (const auto& [file, failure] : cases) {
    const auto address = service.files().add(file);
    EXPECT_THAT(failureOf([&] { fetch(address); }), StartsWith(failure));
    EXPECT_FALSE(std::filesystem::exists(path("file")));
  }
  EXPECT_EQ(failureOf([&] { fetch(":// "); }), "ValueError: bad file URL");
  const auto good = service.files().add({.name = "g", .content = "abc"});
  const auto nowhere = path("no/such/directory");
  EXPECT_EQ(failureOf([&] { api->download(good, nowhere, 5s); }),
            "OSError: cannot write " + nowhere);
  // What somebody planted there is not written through.
  std::ofstream(path("precious")) << "precious";
  std::filesystem::create_symlink(path("precious"), path("link"));
  EXPECT_EQ(failureOf([&] { api->download(good, path("link"), 5s); }),
            "OSError: cannot write " + path("link"));
  EXPECT_EQ(contentOf(path("precious")), "precious");
}

TEST_F(Download, ErrorOfCloseIsIgnored) {
  const auto address = service.files().add({.name = "a", .content = "abc"});
  closeFails = true;
  const auto failure = failureOf([&] { fetch(address); });
  closeFails = false;
  EXPECT_EQ(failure, "OSError: write failed: No space left on device");
  EXPECT_FALSE(std::filesystem::exists(path("file")));
}

/// A download to a pipe that nobody reads yet: its disk does not answer.
class StalledDisk : public Download {
 protected:
  static constexpr auto kTimeout = 800ms;  // the service may be that slow on a busy machine
  static constexpr auto kStall = 1000ms;

  StalledDisk() {
    // Different in each place, lest pieces change places unnoticed.
    while (content.size() < std::size_t{8} << 20) content += fmt::format("{:0100}", content.size());
    EXPECT_EQ(::mkfifo(path("file").c_str(), 0600), 0);
    disk = UniqueFd(::open(path("file").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  }
  void TearDown() override {
    disk.reset();
    caller.join();
    Download::TearDown();
  }
  /// Starts the download of `address`, or else of `content`, and waits until the disk is full.
  void begin(std::chrono::milliseconds timeout, std::string address = "") {
    if (address.empty()) address = service.files().add({.name = "a", .content = content});
    caller = std::thread([this, address, timeout] {
      failure = failureOf([&] { sha256 = api->download(address, path("file"), timeout); });
      ended.set();
    });
    const int capacity = ::fcntl(disk.get(), F_GETPIPE_SZ);
    EXPECT_TRUE(eventually([&] {
      int size = 0;
      return ::ioctl(disk.get(), FIONREAD, &size) == 0 && size == capacity;
    }));
  }

  /// Lets the disk work until the download has ended. Gives what arrived there.
  std::string work() {
    std::string written;
    std::vector<char> piece(65536);
    for (bool last = false; !last;) {
      last = ended.isSet();
      ssize_t size = 0;
      while ((size = ::read(disk.get(), piece.data(), piece.size())) > 0) {
        written.append(piece.data(), static_cast<std::size_t>(size));
      }
      if (pollfd wait{disk.get(), POLLIN, 0}; !last) ::poll(&wait, 1, 1);
    }
    return written;
  }

  std::string content;
  UniqueFd disk;
  std::string sha256;
  std::string failure;
  Event ended;
  std::thread caller;
};

TEST_F(StalledDisk, HoldsUpOtherRequestsOrFailsTheDownload) {
  begin(kTimeout);
  EXPECT_FALSE(ended.waitFor(kStall));
  addJob("");
  api->poll(0, {});
  EXPECT_EQ(failureOf([&] { api->lines(1, batch({})); }), "");
  EXPECT_FALSE(ended.isSet());

  EXPECT_TRUE(work() == content);
  EXPECT_EQ(failure, "");
  EXPECT_EQ(sha256, local::sha256Hex(content));
}

TEST_F(StalledDisk, FailureOfAWriteIsNotNamedOrLeavesAFile) {
  begin(kLong);
  disk.reset();
  EXPECT_TRUE(ended.waitFor(kLong));
  EXPECT_EQ(failure, "OSError: write failed: Broken pipe");
  EXPECT_FALSE(std::filesystem::exists(path("file")));
}

TEST_F(StalledDisk, NetworkThatIsSilentLaterIsWaitedForWithoutALimit) {
  const Listener listener;
  UniqueFd connection;
  std::thread server([&] {
    connection = listener.accept();
    const auto part = "HTTP/1.1 200 OK\r\nContent-Length: 1000000000\r\n\r\n" +
                      std::string(4 * BodyQueue::kMaxBytes, 'x');
    EXPECT_EQ(writeAll(connection.get(), part).error, 0);
  });
  begin(kTimeout, fmt::format("http://127.0.0.1:{}/", listener.port()));
  EXPECT_FALSE(ended.waitFor(kStall));
  EXPECT_GE(work().size(), 2 * BodyQueue::kMaxBytes);
  server.join();
  EXPECT_EQ(failure, "URLError: Timeout was reached");
}

const Certificates& ours() {
  static const Certificates made;
  return made;
}

/// The service over TLS, with a certificate of the test's own.
class Pinned : public ApiFixture {
 protected:
  Pinned() : ApiFixture({.certificate = ours().certificate(), .privateKey = ours().privateKey()}) {}

  std::string helloWith(const std::string& authorities, bool isBesideRoots = false) {
    HttpSession::Options trust;
    if (!authorities.empty()) {
      trust.caCertificates =
          isBesideRoots ? loadCertificatesBesideRoots(authorities) : loadCertificates(authorities);
    }
    make(options(), trust);
    return failureOf([&] { api->hello(); });
  }
};

TEST_F(Pinned, CertificateOfAnotherAuthorityIsAccepted) {
  const Certificates other;
  EXPECT_EQ(helloWith(ours().authority()), "");
  EXPECT_THAT(helloWith(other.authority()), StartsWith("GET /api/driver/hello -> URLError: "));
  // The system's roots do not know it.
  EXPECT_THAT(helloWith(""), StartsWith("GET /api/driver/hello -> URLError: "));
  EXPECT_EQ(service.requests().count(), 1u);

  std::ofstream(path("both.pem"))
      << "# ours and another's\r\n"
      << contentOf(other.authority())
      << "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"
      << contentOf(ours().authority());
  EXPECT_EQ(helloWith(path("both.pem")), "");
}

TEST_F(Pinned, SystemsAuthoritiesAreTrustedAsWell) {
  const auto* built = curl_version_info(CURLVERSION_NOW);
  if (!built->capath || !built->cainfo) GTEST_SKIP() << "libcurl knows no certificates";
  // In place of the system's certificates, for one thread and those that it starts: ours.
  const auto file = std::unique_ptr<std::FILE, int (*)(std::FILE*)>(
      std::fopen(ours().authority().c_str(), "r"), &std::fclose);
  const std::unique_ptr<X509, decltype(&X509_free)> authority(
      PEM_read_X509(file.get(), nullptr, nullptr, nullptr), &X509_free);
  std::filesystem::create_directory(path("roots"));
  for (const auto& name : {std::filesystem::path(built->cainfo).filename().string(),
                           fmt::format("{:08x}.0", X509_subject_name_hash(authority.get()))}) {
    std::filesystem::copy(ours().authority(), path("roots/" + name));
  }
  const Certificates other;
  bool isPermitted = false;
  std::string unpinned;
  std::string pinned;
  std::string beside;
  std::thread([&] {
    isPermitted = ::unshare(CLONE_NEWNS) == 0 &&
                  ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                  ::mount(path("roots").c_str(), built->capath, nullptr, MS_BIND, nullptr) == 0;
    if (!isPermitted) return;
    unpinned = helloWith("");
    pinned = helloWith(other.authority());
    beside = helloWith(other.authority(), true);
  }).join();
  if (!isPermitted) GTEST_SKIP() << "no mount namespaces here";
  EXPECT_EQ(unpinned, "");
  EXPECT_EQ(beside, "");
  EXPECT_THAT(pinned, StartsWith("GET /api/driver/hello -> URLError: "));
}

TEST_F(Pinned, DownloadGoesOnInClear) {
  make(options(), {.caCertificates = loadCertificates(ours().authority())});
  local::LocalService clear;
  clear.start();
  const auto target = clear.url() + clear.files().add({.name = "x", .content = "abc"});
  const auto address = service.files().add({.name = "x", .redirect = target});
  EXPECT_EQ(failureOf([&] { api->download(address, path("file"), 5s); }),
            "URLError: Protocol \"http\" not supported or disabled in libcurl");
  EXPECT_EQ(clear.requests().count(), 0u);
  EXPECT_FALSE(std::filesystem::exists(path("file")));
}

TEST_F(Pinned, OutdatedTlsIsSpoken) {
  // As on some systems, every version may be spoken that the library has.
  std::ofstream(path("lax")) << "openssl_conf = init\n[init]\nssl_conf = ssl\n[ssl]\n"
                                "system_default = lax\n[lax]\nMinProtocol = TLSv1\n"
                                "CipherString = DEFAULT@SECLEVEL=0\n";
  ASSERT_EQ(CONF_modules_load_file(path("lax").c_str(), nullptr, 0), 1);
  const auto isSpoken = [&](int version) {
    bool spoken = false;
    const Listener listener;
    std::thread server([&] {
      const UniqueFd connection = listener.accept();
      const auto context = local::makeServerContext(ours().certificate(), ours().privateKey());
      SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION);
      SSL_CTX_set_max_proto_version(context.get(), version);
      const local::SslPtr tls(SSL_new(context.get()));
      SSL_set_fd(tls.get(), connection.get());
      spoken = SSL_accept(tls.get()) == 1;
    });
    auto given = options();
    given.base = fmt::format("https://127.0.0.1:{}", listener.port());
    make(std::move(given), {.caCertificates = loadCertificates(ours().authority())});
    EXPECT_NE(failureOf([&] { api->hello(); }), "");
    server.join();
    return spoken;
  };
  EXPECT_TRUE(isSpoken(TLS1_2_VERSION));
  EXPECT_FALSE(isSpoken(TLS1_1_VERSION));
  CONF_modules_load_file(nullptr, nullptr, CONF_MFLAGS_IGNORE_MISSING_FILE);
}

TEST_F(Pinned, FileWithoutACertificateCountsAsOne) {
  const auto certificate = contentOf(ours().authority());
  for (const auto& content :
       {contentOf(ours().privateKey()), certificate.substr(0, certificate.size() / 2),
        std::string("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n")}) {
    std::ofstream(path("pem")) << content;
    EXPECT_EQ(failureOf([&] { loadCertificates(path("pem")); }),
              "SSLError: no certificate in " + path("pem"));
  }
  EXPECT_EQ(failureOf([&] { loadCertificates(path("absent")); }),
            "OSError: [Errno 2] No such file or directory: '" + path("absent") + "'");
}

}  // namespace
}  // namespace verdo::test
