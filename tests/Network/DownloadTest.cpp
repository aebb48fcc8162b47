#include "LocalService/Sha256.h"
#include "VerdoDriverCore/Network/BodyQueue.h"
#include "VerdoDriverCore/Network/CertificateFile.h"
#include "VerdoDriverCore/System/Files.h"
#include "tests/Support/ApiFixture.h"
#include "tests/Support/Certificates.h"
#include "tests/Support/Leaks.h"

#include <cstddef>

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>

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
  const auto address = service.addFile({.name = "a b", .content = "abc"});
  for (const auto& url : {address, service.url() + address}) {
    EXPECT_EQ(fetch(url), kShaOfAbc);
    EXPECT_EQ(contentOf(path("file")), "abc");
    struct stat status{};
    ASSERT_EQ(::stat(path("file").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
  }
  // A longer file of before is not left at the end of a shorter one.
  EXPECT_EQ(fetch(service.addFile({.name = "none", .content = ""})), kShaOfNothing);
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
    const auto address = service.addFile(row.file);
    EXPECT_THAT(failureOfDownload([&] { fetch(address); }), StartsWith(row.failure));
    EXPECT_FALSE(std::filesystem::exists(path("file")));
  }
  EXPECT_EQ(failureOfDownload([&] { fetch(":// "); }), "ValueError: bad file URL");
  const auto good = service.addFile({.name = "g", .content = "abc"});
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

/// Makes every close() of the calling thread fail, as the end of a file on a full network disk
/// does. Descriptors stay open.
void failToClose() {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_close, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSPC),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter{std::size(program), program};
  ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter, 0, 0), 0);
}

TEST_F(Download, ErrorOfCloseIsIgnored) {
  const auto address = service.addFile({.name = "a", .content = "abc"});
  std::string failure;
  std::thread([&] {
    failToClose();
    failure = failureOfDownload([&] { fetch(address); });
  }).join();
  EXPECT_EQ(failure, "OSError: write failed: No space left on device");
  EXPECT_FALSE(std::filesystem::exists(path("file")));
  for (const auto& open : openDescriptors()) {
    if (open.find(path("file")) != std::string::npos) ::close(std::stoi(open));
  }
}

/// A download to a pipe that nobody reads yet: its disk does not answer.
class StalledDisk : public Download {
 protected:
  static constexpr auto kTimeout = 300ms;

  StalledDisk() : content(std::size_t{8} << 20, 'x') {
    // Different in each place, lest pieces change places unnoticed.
    for (std::size_t at = 0; at + 8 < content.size(); at += 100) {
      content.replace(at, 8, fmt::format("{:08}", at));
    }
    EXPECT_EQ(::mkfifo(path("file").c_str(), 0600), 0);
    disk = UniqueFd(::open(path("file").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  }
  /// Starts the download and waits until the disk is full.
  void begin() { begin(service.addFile({.name = "a", .content = content})); }
  void begin(const std::string& address) {
    caller = std::thread([this, address] {
      failure = failureOfDownload([&] { sha256 = api->download(address, path("file"), kTimeout); });
      ended.set();
    });
    const int capacity = ::fcntl(disk.get(), F_GETPIPE_SZ);
    EXPECT_TRUE(eventually([&] {
      int size = 0;
      return ::ioctl(disk.get(), FIONREAD, &size) == 0 && size == capacity;
    }));
  }
  void TearDown() override {
    disk.reset();
    caller.join();
    Download::TearDown();
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
  begin();
  EXPECT_FALSE(ended.waitFor(2 * kTimeout));
  addJob("");
  api->poll(0, {});
  EXPECT_EQ(failureOf([&] { api->lines(1, batch({})); }), "");
  EXPECT_FALSE(ended.isSet());

  EXPECT_TRUE(work() == content);
  EXPECT_EQ(failure, "");
  EXPECT_EQ(sha256, local::sha256Hex(content));
}

TEST_F(StalledDisk, KeepsAFileThatWasCancelled) {
  begin();
  api->stopPolling();
  EXPECT_LT(work().size(), content.size());
  EXPECT_EQ(failure, "URLError: cancelled");
  EXPECT_FALSE(std::filesystem::exists(path("file")));
}

TEST_F(StalledDisk, FailureOfAWriteIsNotNamedOrLeavesAFile) {
  begin();
  disk.reset();
  EXPECT_TRUE(ended.waitFor(kLong));
  EXPECT_EQ(failure, "OSError: write failed: Broken pipe");
  EXPECT_FALSE(std::filesystem::exists(path("file")));
}

/// A server that promises more than it sends, and stays.
class SilentServer {
 public:
  SilentServer() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (::bind(listener_.get(), generic, size) != 0 || ::listen(listener_.get(), 1) != 0 ||
        ::getsockname(listener_.get(), generic, &size) != 0) {
      throw std::runtime_error("cannot listen");
    }
    port_ = ntohs(address.sin_port);
  }
  std::string url() const { return fmt::format("http://127.0.0.1:{}/", port_); }
  /// Answers one request with so many bytes of a body.
  void answer(std::size_t bytes) {
    connection_ = UniqueFd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    const auto reply =
        "HTTP/1.1 200 OK\r\nContent-Length: 1000000000\r\n\r\n" + std::string(bytes, 'x');
    EXPECT_EQ(writeAll(connection_.get(), reply).error, 0);
  }

 private:
  UniqueFd listener_;
  UniqueFd connection_;
  int port_ = 0;
};

TEST_F(StalledDisk, NetworkThatIsSilentLaterIsWaitedForWithoutALimit) {
  SilentServer silent;
  std::thread server([&] { silent.answer(4 * BodyQueue::kMaxBytes); });
  begin(silent.url());
  EXPECT_FALSE(ended.waitFor(2 * kTimeout));
  EXPECT_GE(work().size(), 2 * BodyQueue::kMaxBytes);
  server.join();
  EXPECT_EQ(failure, "URLError: Timeout was reached");
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
  EXPECT_EQ(service.requestCount(), 1u);

  std::ofstream(path("both.pem"))
      << "# ours and another's\r\n"
      << contentOf(other.authority())
      << "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"
      << contentOf(ours->authority());
  EXPECT_EQ(helloWith(path("both.pem")), "");
}

}  // namespace
}  // namespace verdo::test
