#include "LocalService/LocalService.h"
#include "tests/LocalService/RawClient.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <spawn.h>
#include <sys/wait.h>

namespace verdo::local::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

/// Writes a key and a self-signed certificate for 127.0.0.1 into one PEM file.
std::filesystem::path makeCertificate() {
  const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  const std::unique_ptr<X509, decltype(&X509_free)> cert(X509_new(), X509_free);
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -60);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3600);
  X509_set_pubkey(cert.get(), key.get());
  auto* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("local service"), -1, -1, 0);
  X509_set_issuer_name(cert.get(), name);
  const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> address(
      X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "IP:127.0.0.1"),
      X509_EXTENSION_free);
  X509_add_ext(cert.get(), address.get(), -1);
  X509_sign(cert.get(), key.get(), EVP_sha256());
  const std::filesystem::path path =
      testing::TempDir() + "local-service-" + std::to_string(::getpid()) + ".pem";
  const std::unique_ptr<FILE, decltype(&fclose)> file(fopen(path.c_str(), "w"), fclose);
  PEM_write_PrivateKey(file.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  PEM_write_X509(file.get(), cert.get());
  return path;
}

TEST(Life, ServesTls) {
  // httplib's client writes its TLS farewell into the connection that was reset.
  std::signal(SIGPIPE, SIG_IGN);
  const auto pem = makeCertificate();
  LocalService service({.certificate = pem, .privateKey = pem});
  service.start();
  EXPECT_THAT(service.url(), testing::StartsWith("https://127.0.0.1:"));
  {
    httplib::SSLClient client("127.0.0.1", service.port());
    client.set_ca_cert_path(pem.c_str());
    client.enable_server_certificate_verification(true);
    client.set_keep_alive(true);
    const httplib::Headers headers{{"Authorization", "Bearer " + service.token()},
                                   {"X-VERDO-Driver-Protocol", "2"}};
    for (int i = 0; i < 3; ++i) {
      const auto reply = client.Get("/api/driver/hello", headers);
      ASSERT_TRUE(reply) << httplib::to_string(reply.error());
      EXPECT_EQ(reply->status, 200);
    }
    EXPECT_EQ(service.acceptedConnections(), 1u);
    const std::string body = R"({"lines":[")" + std::string(2 << 20, 'x') + R"("]})";
    EXPECT_EQ(client.Post("/api/driver/jobs/1/lines", headers, body, "application/json")->status,
              200);
    service.addFault({.delivery = Delivery::reset});
    EXPECT_FALSE(client.Get("/api/driver/hello", headers));
  }
  // A plain-text client is told nothing and harms nothing.
  RawClient plain(service.port());
  plain.send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_NE(plain.receive().end, Seen::End::timeout);
  std::filesystem::remove(pem);
}

TEST(Life, StartSaysWhatIsWrong) {
  LocalService first;
  first.start();
  const std::string noFile = "/nonexistent.pem";
  struct Case {
    LocalServiceOptions options;
    const char* says;
  };
  const std::vector<Case> cases = {
      {{.port = first.port()}, "--port"},
      {{.certificate = noFile}, "private key"},
      {{.certificate = noFile, .privateKey = noFile}, "/nonexistent.pem"},
  };
  for (const auto& test : cases) {
    LocalService service(test.options);
    try {
      service.start();
      ADD_FAILURE() << "started, but should have said " << test.says;
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), HasSubstr(test.says));
    }
  }
}

TEST(Life, ThousandLongPollsAreServedAndStopIsPrompt) {
  LocalService service;
  service.start();
  // More descriptors than select(2) can name, in one process with both ends of each connection.
  constexpr int count = 1100;
  std::vector<std::unique_ptr<Driver>> drivers;
  for (int i = 0; i < count; ++i) {
    drivers.push_back(std::make_unique<Driver>(service));
    drivers.back()->start("GET", "/api/driver/poll?wait=60");
  }
  ASSERT_TRUE(service.waitForRequest("poll", count, 20s));
  for (int i = 0; i < count / 2; ++i) service.addJob();
  for (int i = 1; i <= count / 2; ++i) ASSERT_TRUE(service.waitFor(i, JobState::leased, 10s));

  const auto start = std::chrono::steady_clock::now();
  service.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  int got = 0;
  for (auto& driver : drivers) got += Driver::jobOf(driver->finish()) != 0 ? 1 : 0;
  // A reply that the stop cut off put its job back: leased means delivered.
  const auto jobs = service.jobs();
  EXPECT_EQ(got, std::ranges::count(jobs, JobState::leased, &JobSnapshot::state));
  EXPECT_GT(got, 0);

  const auto port = service.port();
  service.start();
  EXPECT_EQ(service.port(), port);
  EXPECT_EQ(Driver(service).hello().status, 200);
}

TEST(Life, WaitsEndWhenTheServiceStops) {
  LocalService service;
  service.start();
  const auto id = service.addJob();
  std::thread stopper([&] {
    std::this_thread::sleep_for(50ms);
    service.stop();
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(service.waitFor(id, JobState::done, 30s));
  EXPECT_FALSE(service.waitForRequest("hello", 1, 30s));
  EXPECT_FALSE(service.waitForHangUps("poll", 1, 30s));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
  stopper.join();
}

/// The program, run with its output in a pipe.
class Program {
 public:
  explicit Program(std::vector<std::string> arguments) {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    output_.reset(ends[0]);
    const UniqueFd childEnd(ends[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, childEnd.get(), 1);
    posix_spawn_file_actions_adddup2(&actions, childEnd.get(), 2);
    arguments.insert(arguments.begin(), VERDO_LOCAL_SERVICE_PROGRAM);
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    EXPECT_EQ(::posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Program() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }

  std::string line() {
    std::string text;
    for (char c = 0; ::read(output_.get(), &c, 1) == 1 && c != '\n';) text += c;
    return text;
  }
  void signal(int number) const { ::kill(pid_, number); }
  int wait() {
    int status = 0;
    ::waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  UniqueFd output_;
  pid_t pid_ = -1;
};

TEST(ProgramRun, ServesSaysWhereAndEndsOnASignalWithPollsOpen) {
  for (const int signal : {SIGINT, SIGTERM}) {
    Program program({"--port", "0", "--token", "secret"});
    const auto listening = program.line();
    ASSERT_THAT(listening, testing::StartsWith("listening on http://127.0.0.1:"));
    EXPECT_EQ(program.line(), "token secret");
    const auto port =
        static_cast<std::uint16_t>(std::stoi(listening.substr(listening.rfind(':') + 1)));
    Driver driver(port, "secret");
    EXPECT_EQ(driver.hello().status, 200);
    driver.start("GET", "/api/driver/poll?wait=60");
    const auto start = std::chrono::steady_clock::now();
    program.signal(signal);
    EXPECT_EQ(program.wait(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  }
}

TEST(ProgramRun, RefusesWithAClearLine) {
  LocalService holder;
  holder.start();
  struct Case {
    std::vector<std::string> arguments;
    int code;
    const char* says;
  };
  const std::vector<Case> cases = {
      {{"--port", std::to_string(holder.port())}, 1, "--port"},
      {{"--port", "70000"}, 2, "port"},
      {{"--unknown"}, 2, "unknown"},
      {{"--cert", "/nonexistent.pem"}, 2, "cert"},
      {{"--lease", "0"}, 2, "lease"},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.arguments[0]);
    Program program(test.arguments);
    EXPECT_THAT(program.line(), HasSubstr(test.says));
    EXPECT_EQ(program.wait(), test.code);
  }
}

}  // namespace
}  // namespace verdo::local::test
