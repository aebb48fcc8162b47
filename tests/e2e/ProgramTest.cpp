#include "tests/Support/DriverFixture.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/Program.h"

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using local::FaultReply;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using Arguments = std::vector<std::string>;

constexpr const char* kKey = "sk-key-of-the-provider";

/// The program itself, with its real time constants.
class TheProgram : public DriverFixture {
 protected:
  TheProgram() {
    environment = {
        {"PATH", "/usr/bin:/bin"}, {"HOME", home()}, {"VERDO_DRIVER_TOKEN", service.token()}};
    // Sanitizers of a child take their options from its environment.
    for (const char* name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
      if (const char* value = std::getenv(name)) environment[name] = value;
    }
  }

  Arguments arguments(const Arguments& more = {}) const {
    Arguments all{"--server", service.url(), "--exec", config.execCommand};
    all.insert(all.end(), more.begin(), more.end());
    return all;
  }

  Environment environment;
};

TEST_F(TheProgram, HelpVersionOrUsageEndWithTheWrongStatus) {
  struct Case {
    Arguments arguments;
    int status;
    const char* output;
    const char* errors;
  };
  const Case cases[] = {
      {{"--version"}, 0, "verdo-driver 2026.09.04\n", ""},
      {{"--help"}, 0, "(.|\n)*--serve-jobs(.|\n)*Exit status: 0 done(.|\n)*", ""},
      {{"--max-jobs", "none"}, 2, "", "verdo-driver: [^\n]*--max-jobs[^\n]*--help\\)\n"},
      {{"--frobnicate"}, 2, "", "verdo-driver: [^\n]*--frobnicate[^\n]*\n"},
  };
  for (const auto& row : cases) {
    Program program(row.arguments, environment);
    EXPECT_EQ(program.wait(), row.status);
    EXPECT_THAT(program.output(), testing::MatchesRegex(row.output));
    EXPECT_THAT(program.errors(), testing::MatchesRegex(row.errors));
  }
}

TEST_F(TheProgram, DumpsCoreWithoutAThreadToBeHad) {
  if (kSanitized) GTEST_SKIP() << "sanitizers need a stack of the usual size";
  // A thread's stack is as large as the limit says, and for this one there is no room.
  Program program(arguments(), environment, {"/usr/bin/prlimit", "--stack=70368744177664"});
  EXPECT_EQ(program.wait(), 1);
  EXPECT_THAT(program.errors(), testing::StartsWith("✗ cannot start a thread: "));
}

TEST_F(TheProgram, EndsWithTheWrongStatusOrWithoutAWord) {
  struct Case {
    std::optional<local::Fault> fault;
    Arguments more;
    int status;
    std::string last;
  };
  const auto reply = [](int status) {
    return local::Fault{.endpoint = "hello", .reply = FaultReply{.status = status, .body = "no"}};
  };
  const std::string call = "GET /api/driver/hello -> ";
  const Case cases[] = {
      {{}, {}, 0, "! dry run — not serving jobs\n"},
      {reply(500), {}, 1, "✗ " + call + "500: no\n"},
      {{},
       {"--ca-cert", "/no/such.pem"},
       2,
       "✗ OSError: [Errno 2] No such file or directory: '/no/such.pem'\n"},
      {{}, {"--exec", "no-such-program"}, 127, "✗ executor not found: no-such-program\n"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.status);
    service.faults().clearAll();
    if (row.fault) service.faults().add(*row.fault);
    Arguments all = arguments({"--dry-run"});
    if (row.more.size() == 2 && row.more[0] == "--exec") all = {"--server", service.url()};
    all.insert(all.end(), row.more.begin(), row.more.end());
    Program program(all, environment);
    EXPECT_EQ(program.wait(), row.status);
    EXPECT_THAT(program.errors(), EndsWith(row.last));
    EXPECT_EQ(program.output(), "");
  }
}

TEST_F(TheProgram, ReadsAnEnvFileThatOthersCanRead) {
  const std::string file = path("driver.env");
  std::ofstream(file) << "VERDO_DRIVER_TOKEN=" << service.token() << "\n";
  std::filesystem::permissions(file, std::filesystem::perms{0644});
  environment.erase("VERDO_DRIVER_TOKEN");
  const Arguments all = arguments({"--dry-run", "--env-file", file});
  {
    Program program(all, environment);
    EXPECT_EQ(program.wait(), 2);
    EXPECT_EQ(program.errors(),
              "✗ " + file + " is readable by others — fix it first:  chmod 600 " + file + "\n");
    EXPECT_EQ(service.requests().count(), 0u);
  }
  std::filesystem::permissions(file, std::filesystem::perms{0600});
  Program program(all, environment);
  EXPECT_EQ(program.wait(), 0);
}

TEST_F(TheProgram, IsBeatenByASecretThatWasCopiedBadly) {
  environment["VERDO_DRIVER_TOKEN"] = " \t" + service.token() + "\r\n";
  Program trimmed(arguments({"--dry-run"}), environment);
  EXPECT_EQ(trimmed.wait(), 0);
  EXPECT_THAT(trimmed.errors(), Not(HasSubstr("✗")));

  service.requests().clear();
  environment["VERDO_DRIVER_TOKEN"] = service.token() + "\r\nX-Other: 1";
  Program split(arguments({"--dry-run"}), environment);
  EXPECT_EQ(split.wait(), 2);
  EXPECT_EQ(split.errors(),
            "✗ the driver token holds a control character, such as a line end inside it; copy it "
            "again, as one line\n");
  EXPECT_EQ(service.requests().count(), 0u);
}

TEST_F(TheProgram, LeavesSomebodyWithoutAnExecutorAlone) {
  const Arguments none{"--server", service.url(), "--dry-run"};
  Program unnamed(none, environment);
  EXPECT_EQ(unnamed.wait(), 127);
  EXPECT_EQ(unnamed.errors(),
            "! install ego-browser or verdo-browser, or name another executor with --exec; "
            "--extra-path DIR searches DIR too\n✗ executor not found: ego-browser\n");

  std::ofstream(path("verdo-browser")) << "#!/bin/sh\n";
  std::filesystem::permissions(path("verdo-browser"), std::filesystem::perms{0700});
  Arguments found = none;
  found.insert(found.end(), {"--extra-path", home()});
  Program ours(found, environment);
  EXPECT_EQ(ours.wait(), 0);
}

TEST_F(TheProgram, LosesTheStatusOfEveryJobWhereSigchldWasIgnored) {
  const auto id = addJob("say a");
  Program program(arguments({"--serve-jobs", "1"}), environment,
                  {"/usr/bin/env", "--ignore-signal=CHLD"});
  EXPECT_EQ(program.wait(), 0);
  EXPECT_EQ(doneJob(id).exitCode, 0);
}

TEST_F(TheProgram, ShowsASecretToSomebody) {
  environment["VERDO_LLM_API_KEY"] = kKey;
  const auto id = addJob("environment");
  const auto waiting = addJob("sleep 100");
  service.faults().add({.endpoint = "lines",
                        .after = 3,
                        .count = 1,
                        .reply = FaultReply{.status = 500, .body = "Bearer " + service.token()}});
  Program program(arguments(), environment);
  EXPECT_EQ(doneJob(id).exitCode, 0);
  std::string seen;
  for (const auto& line : service.jobs().lines(id)) seen += line + "\n";
  EXPECT_THAT(seen, HasSubstr("HOME=" + home()));
  EXPECT_TRUE(service.jobs().waitForLine(waiting, "ready", kLong));
  EXPECT_TRUE(program.waitForError("server unreachable, retrying: "));
  seen += program.proc("environ") + program.proc("cmdline");
  service.faults().add(
      {.endpoint = "poll", .reply = FaultReply{.status = 401, .body = "no: " + service.token()}});
  addJob("say a");
  EXPECT_EQ(program.wait(), 3);
  seen += program.errors() + program.output();
  EXPECT_THAT(seen, Not(HasSubstr(service.token())));
  // And the last word is said once.
  const std::string last =
      "✗ driver token revoked — issue a new one in the UI (Browser driver card)\n";
  EXPECT_THAT(program.errors(), EndsWith(last));
  EXPECT_EQ(program.errors().find(last), program.errors().size() - last.size());
  EXPECT_THAT(seen, Not(HasSubstr("sk-key-of")));
}

TEST_F(TheProgram, SignalDuringAPollIsNotHeard) {
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    service.requests().clear();
    Program program(arguments(), environment);
    ASSERT_TRUE(service.requests().waitFor("poll", 1, kLong));
    const auto begin = std::chrono::steady_clock::now();
    program.signal(number);
    EXPECT_EQ(program.wait(), 130);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 3s);
    EXPECT_THAT(program.errors(), HasSubstr("! stopping — killing jobs and closing their tabs\n"));
  }
}

TEST_F(TheProgram, SecondSignalIsWaitedForLikeTheFirst) {
  const auto id = addJob("deaf");
  Program program(arguments({"--no-sweep"}), environment);
  ASSERT_TRUE(service.jobs().waitForLine(id, "ready", kLong));
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
