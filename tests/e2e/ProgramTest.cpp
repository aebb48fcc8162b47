#include "tests/Support/DriverFixture.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/Program.h"

#include <sys/socket.h>
#include <sys/un.h>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using Arguments = std::vector<std::string>;

constexpr const char* kProviderKey = "sk-key-of-the-provider";

/// The program itself, with its real time constants.
class TheProgram : public DriverFixture {
 protected:
  TheProgram() {
    environment = {
        {"PATH", "/usr/bin:/bin"}, {"HOME", home()}, {"VERDO_DRIVER_TOKEN", service.token()}};
  }

  Arguments arguments(const Arguments& more = {}) const {
    Arguments all{"--server", service.url(), "--exec", config.execCommand};
    all.insert(all.end(), more.begin(), more.end());
    return all;
  }

  Environment environment;
};

TEST_F(TheProgram, AnswersWithTheWrongStatusOrOnTheWrongStream) {
  Program program({"--version"}, environment);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(program.output() + program.errors(), "verdo-driver 2026.09.04\n");
  EXPECT_EQ(program.errors(), "");
}

/// The socket on which a service manager hears its services.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_DGRAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const timeval limit{20, 0};
    ::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    EXPECT_EQ(::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  /// The next message; empty when none comes for 20 s.
  std::string next() const {
    char buffer[4096];
    const auto size = ::recv(fd_.get(), buffer, sizeof buffer, 0);
    return {buffer, static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
  }
  /// Leaves no room for a message.
  void fill() const {
    sockaddr_un address{};
    socklen_t length = sizeof address;
    ::getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address), &length);
    const auto fillFrom = [&](const UniqueFd& sender) {
      int sent = 0;
      while (::sendto(sender.get(), "", 1, 0, reinterpret_cast<const sockaddr*>(&address),
                      length) == 1) {
        ++sent;
      }
      return sent;
    };
    // Each may have a few hundred on the way.
    while (fillFrom(UniqueFd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0))) > 0) {
    }
  }

 private:
  UniqueFd fd_;
};

TEST_F(TheProgram, ServiceManagerHearsOfItTooEarlyOrNotAtAll) {
  const TempDir files;
  const std::string path = files.path() + "/notify";
  const NotifySocket manager(path);
  environment["NOTIFY_SOCKET"] = path;
  environment["WATCHDOG_USEC"] = "3000000";
  answerWith("hello", 503, "no", 1);
  {
    Program refused(arguments(), environment);
    EXPECT_EQ(refused.wait(), 1);
    EXPECT_EQ(manager.next(), "STATUS=connecting");
    EXPECT_THAT(manager.next(), testing::MatchesRegex("STATUS=[^\n]*/hello -> 503[^\n]*"));
  }
  Program program(arguments(), environment);
  EXPECT_EQ(manager.next(), "STATUS=connecting");
  EXPECT_EQ(manager.next(), "READY=1\nSTATUS=serving local; idle");
  for (int i = 0; i < 2; ++i) EXPECT_EQ(manager.next(), "WATCHDOG=1");  // the second in a poll
  addJob("sleep 100", {.label = "mail"});
  EXPECT_EQ(manager.next(), "STATUS=serving local; busy: mail");
  ASSERT_TRUE(service.jobs().waitForLine(1, "ready", kLong));
  for (const pid_t pid : processesOf(home())) {
    if (pid == program.pid()) continue;
    const std::string itsEnvironment = contentOf(fmt::format("/proc/{}/environ", pid));
    EXPECT_THAT(itsEnvironment, HasSubstr("PATH="));
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_"}) {
      EXPECT_THAT(itsEnvironment, Not(HasSubstr(name)));
    }
  }
  program.signal(SIGTERM);
  std::string told = "WATCHDOG=1";
  while (told == "WATCHDOG=1") told = manager.next();
  EXPECT_EQ(told, "STOPPING=1\nSTATUS=stopping; busy: mail");
  EXPECT_EQ(manager.next(), "STATUS=stopping");
  EXPECT_EQ(program.wait(), 130);
}

TEST_F(TheProgram, WaitsForAServiceManagerThatDoesNotListen) {
  const TempDir files;
  const NotifySocket manager(files.path() + "/notify");
  manager.fill();
  environment["NOTIFY_SOCKET"] = files.path() + "/notify";
  Program program(arguments(), environment);
  ASSERT_TRUE(program.waitForError("serving up to"));
  program.signal(SIGTERM);
  EXPECT_EQ(program.wait(), 130);
}

TEST_F(TheProgram, DumpsCoreWithoutAThreadToBeHad) {
  if (kSanitized) GTEST_SKIP() << "sanitizers need a stack of the usual size";
  // A thread's stack is as large as the limit says, and for this one there is no room.
  Program program(arguments(), environment, {"/usr/bin/prlimit", "--stack=70368744177664"});
  EXPECT_EQ(program.wait(), 1);
  EXPECT_THAT(program.errors(), testing::StartsWith("✗ cannot start a thread: "));
}

TEST_F(TheProgram, EndsWithTheWrongStatusOrWithoutAWord) {
  const TempDir files;
  const std::string line = "VERDO_DRIVER_TOKEN=" + service.token() + "\n";
  const auto open = files.write("open.env", line, std::filesystem::perms{0644});
  files.write("verdo-browser", "#!/bin/sh\n", std::filesystem::perms{0700});
  const std::string served = "! dry run — not serving jobs\n";
  const std::string own = config.execCommand;
  const struct {
    Arguments arguments;
    std::string token;
    int status;
    std::string errors;  ///< the end of them; all of them when no request was made
  } cases[] = {
      {{"--exec", own}, " \t" + service.token() + "\r\n", 0, served},
      {{"--exec", own, "--env-file", files.write("own.env", line)}, "", 0, served},
      {{"--exec", own, "--env-file", open},
       "",
       2,
       "✗ " + open + " is readable by others — fix it first:  chmod 600 " + open + "\n"},
      {{"--exec", own},
       service.token() + "\r\nX-Other: 1",
       2,
       "✗ the driver token holds a control character, such as a line end inside it; copy it "
       "again, as one line\n"},
      {{"--exec", own, "--ca-cert", "/no/such.pem"},
       service.token(),
       2,
       "✗ OSError: [Errno 2] No such file or directory: '/no/such.pem'\n"},
      {{"--frobnicate"},
       service.token(),
       2,
       "verdo-driver: The following argument was not expected: --frobnicate (see verdo-driver "
       "--help)\n"},
      {{"--exec", own}, "another", 3, "✗ token rejected: GET /api/driver/hello -> 401: "},
      {{"--extra-path", files.path()}, service.token(), 0, served},
      {{"--exec", "no-such-program"},
       service.token(),
       127,
       "✗ executor not found: no-such-program\n"},
      {{},
       service.token(),
       127,
       "! install ego-browser or verdo-browser, or name another executor with --exec; "
       "--extra-path DIR searches DIR too\n✗ executor not found: ego-browser\n"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.errors);
    service.requests().clear();
    environment["VERDO_DRIVER_TOKEN"] = row.token;
    Arguments all{"--server", service.url(), "--dry-run"};
    all.insert(all.end(), row.arguments.begin(), row.arguments.end());
    Program program(all, environment);
    EXPECT_EQ(program.wait(), row.status);
    EXPECT_EQ(program.output(), "");
    const bool isLocal = row.status == 2 || row.status == 127;
    EXPECT_EQ(service.requests().count(), isLocal ? 0u : 1u);
    if (isLocal) {
      EXPECT_EQ(program.errors(), row.errors);
    } else {
      EXPECT_THAT(program.errors(), HasSubstr(row.errors));
    }
  }
}

TEST_F(TheProgram, DoctorEndsWithTheWrongStatusOrTellsASecret) {
  const TempDir files;
  const std::string line =
      "VERDO_DRIVER_TOKEN=" + service.token() + "\nVERDO_LLM_API_KEY=" + service.providerKey();
  const auto open = files.write("open.env", line, std::filesystem::perms{0644});
  const auto own = files.write("own.env", line);
  const struct {
    Arguments arguments;
    std::string token;
    int status;
    std::string output;
  } cases[] = {
      {{}, service.token(), 0, "driver token from the environment, LLM key none\n"},
      {{"--env-file", own, "--llm-base", service.providerUrl()},
       "",
       0,
       "driver token from the env file, LLM key from the env file\n"},
      {{"--json"}, service.token(), 0, "{\"healthy\": true, \"version\": \"2026.09.04\", "},
      {{"--report"}, service.token(), 0, "server: 127.0.0.1\n✓ ok       configuration"},
      {{"--thorough", "--poll-wait", "0"}, service.token(), 0, "posts of 8 MiB come through\n"},
      {{}, "", 1, "✗ failed   configuration    there is no driver token\n"},
      {{}, service.token() + "\r\nX: 1", 1, "the driver token holds a control character"},
      {{"--env-file", open}, "", 1, "others than you may read or change " + open + "\n"},
      {{"--env-file", files.path()}, "", 1, files.path() + " cannot be read: "},
      {{"--json", "--env-file", open}, "", 1, "{\"healthy\": false, "},
      {{"--json", "--report"}, service.token(), 2, ""},
      {{"--exec"}, service.token(), 2, ""},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.output);
    environment["VERDO_DRIVER_TOKEN"] = row.token;
    auto all = arguments({"doctor"});
    all.insert(all.end(), row.arguments.begin(), row.arguments.end());
    Program program(all, environment);
    EXPECT_EQ(program.wait(), row.status);
    EXPECT_THAT(program.output(), HasSubstr(row.output));
    EXPECT_EQ(program.output().empty(), row.status == 2);
    for (const auto& secret : {service.token(), service.providerKey()}) {
      EXPECT_THAT(program.output() + program.errors(), Not(HasSubstr(secret)));
    }
    const bool isLate = all.size() > 5 && all[5] == "--thorough";
    EXPECT_EQ(program.errors().starts_with("! polling once: a job"), isLate);
  }
  hangOn("list");
  environment["VERDO_DRIVER_TOKEN"] = service.token();
  Program program(arguments({"doctor"}), environment);
  ASSERT_TRUE(hangs());
  program.signal(SIGINT);
  EXPECT_EQ(program.wait(), 130);
  EXPECT_TRUE(eventually([&] { return processesOf(home()).empty(); }));
}

TEST_F(TheProgram, LosesTheStatusOfEveryJobWhereSigchldWasIgnored) {
  const auto id = addJob("say a");
  Program program(arguments({"--serve-jobs", "1"}), environment,
                  {"/usr/bin/env", "--ignore-signal=CHLD"});
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(doneJob(id).exitCode, 0);
}

TEST_F(TheProgram, ShowsASecretToSomebody) {
  environment["VERDO_LLM_API_KEY"] = kProviderKey;
  const auto id = addJob("environment");
  const auto waiting = addJob("sleep 100");
  service.faults().add(
      {.endpoint = "lines",
       .after = 3,
       .count = 1,
       .reply = local::FaultReply{.status = 500, .body = "Bearer " + service.token()}});
  const Lines asMuchCoreAsAllowed{"/bin/sh", "-c", "ulimit -Sc $(ulimit -Hc); exec \"$@\"", "sh"};
  Program program(arguments(), environment, asMuchCoreAsAllowed);
  EXPECT_EQ(doneJob(id).exitCode, 0);
  EXPECT_THAT(program.proc("limits"), testing::ContainsRegex("core file size +0 "));
  std::string seen;
  for (const auto& line : service.jobs().lines(id)) seen += line + "\n";
  EXPECT_THAT(seen, HasSubstr("HOME=" + home()));
  EXPECT_TRUE(hasPrinted(waiting));
  EXPECT_TRUE(program.waitForError("server unreachable, retrying: "));
  seen += program.proc("environ") + program.proc("cmdline");
  answerWith("poll", 401, "no: " + service.token());
  addJob("say a");
  EXPECT_EQ(program.wait(), 3);
  seen += program.errors() + program.output();
  for (const auto& entry : std::filesystem::recursive_directory_iterator(home())) {
    if (entry.is_regular_file()) seen += contentOf(entry.path());
  }
  EXPECT_THAT(seen, Not(HasSubstr(service.token())));
  // And the last word is said once.
  const std::string last =
      "✗ driver token revoked — issue a new one in the UI (Browser driver card)\n";
  EXPECT_THAT(program.errors(), EndsWith(last));
  EXPECT_EQ(program.errors().find(last), program.errors().size() - last.size());
  EXPECT_THAT(seen, Not(HasSubstr("sk-key-of")));
}

TEST_F(TheProgram, SignalDuringAPollIsNotHeardOrPassesForAFailure) {
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    service.requests().clear();
    Program program(arguments(), environment);
    ASSERT_TRUE(service.requests().waitFor("poll", 1, kLong));
    const auto begin = std::chrono::steady_clock::now();
    program.signal(number);
    EXPECT_EQ(program.wait(), 130);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
    EXPECT_TRUE(service.requests().waitForHangUps("poll", 1, kLong));
    EXPECT_EQ(service.requests().count("poll"), 1u) << "repeated";
    EXPECT_THAT(program.errors(), EndsWith("! stopping — killing jobs and closing their tabs\n"));
  }
}

TEST_F(TheProgram, LeavesJobsOfACrashBehind) {
  const auto id = addJob("grandchild deaf");
  {
    const Program crashing(arguments(), environment);
    ASSERT_TRUE(hasPrinted(id));
    crashing.signal(SIGKILL);
  }
  ASSERT_FALSE(processesOf(home()).empty());
  Program next(arguments(), environment);
  EXPECT_TRUE(next.waitForError("! ended process group "));
  // Not at once: the sweep has a script at work, and who was killed takes a moment to go.
  EXPECT_TRUE(eventually([&] { return processesOf(home()) == std::vector{next.pid()}; }));
}

TEST_F(TheProgram, SecondSignalIsWaitedForLikeTheFirst) {
  const auto id = addJob("deaf");
  Program program(arguments({"--no-sweep"}), environment);
  ASSERT_TRUE(hasPrinted(id));
  program.signal(SIGTERM);
  ASSERT_TRUE(program.waitForError("stopping — killing jobs"));
  const auto begin = std::chrono::steady_clock::now();
  program.signal(SIGTERM);
  EXPECT_EQ(program.wait(), 130);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 3s);
  EXPECT_THAT(program.errors(), EndsWith("! stopping at once\n"));
  // Nobody outlives it, however deaf.
  EXPECT_TRUE(eventually([&] { return processesOf(home()).empty(); }));
}

}  // namespace
}  // namespace verdo::test
