#include "tests/Support/DriverFixture.h"

#include <filesystem>

#include <signal.h>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using local::FileSpec;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class StagedJob : public DriverFixture {
 protected:
  StagedJob() {
    config.serveJobs = 1;
    // Left by a crash; the fixture sees that it goes.
    std::filesystem::create_directories(stagingCache() + "/verdo-left");
  }

  /// A job whose file takes for ever, or as long as its size and the speed say.
  std::int64_t addSlowJob(std::size_t bytesPerSecond = 200, std::size_t size = 100'000) {
    service.faults().add({.endpoint = "files",
                          .delivery = local::Delivery::trickled,
                          .bytesPerSecond = bytesPerSecond});
    return addJob("cat __VERDO_FILE__a__",
                  {.files = {{.name = "a", .content = std::string(size, 'x')}}});
  }
};

TEST_F(StagedJob, ScriptDoesNotFindItsFile) {
  local::LocalService other;
  other.start();
  const std::string content = "from far";
  const std::string elsewhere =
      other.url() + other.files().add({.name = "far", .content = content});
  // A hostile name in the address would be tidied away by any client.
  const std::string far = service.url() + service.files().add({.name = "far", .content = content});
  const FileSpec cases[] = {
      {.name = "a.pdf"},
      {.name = "a.pdf", .absoluteUrl = true},
      {.name = "../../../etc/pass wd", .url = far},
      {.name = "..", .url = far},
      {.name = "Ünï\n\"'$(x)"},
      {.name = std::string(400, 'n')},
      {.name = "far", .redirect = elsewhere},
      {.name = "far", .url = elsewhere},
  };
  for (auto file : cases) {
    SCOPED_TRACE(file.name);
    file.content = content;
    const auto id =
        addJob("cat __VERDO_FILE__" + file.name + "__", {.label = "mail", .files = {file}});
    EXPECT_EQ(run(), ExitReason::clean());
    EXPECT_THAT(service.jobs().lines(id), ElementsAre(content));
    EXPECT_TRUE(log->has("job " + std::to_string(id) + ": 1 file(s) staged"));
  }
  for (auto* host : {&service, &other}) {
    for (const auto& request : host->requests().list("files")) {
      EXPECT_EQ(request.header("Authorization"), std::nullopt);
      for (const auto& [name, value] : request.headers) {
        EXPECT_THAT(name, testing::Not(HasSubstr("VERDO")));
        EXPECT_THAT(value, testing::Not(HasSubstr(service.token())));
      }
    }
  }
}

TEST_F(StagedJob, FileThatCannotBeHadIsRunWithout) {
  const std::pair<FileSpec, const char*> cases[] = {
      {{.sha256 = std::string(64, '0')}, "ValueError"},
      {{.omitSha256 = true}, "KeyError"},
      {{.omitUrl = true}, "KeyError"},
      {{.url = "http://127.0.0.1:1/x"}, "URLError"},
      {{.url = "file:///etc/passwd"}, "ValueError"},
      {{.redirect = "file:///etc/passwd"}, "URLError"},
      {{.truncateAfter = 3}, "URLError"},
      {{.status = 404}, "HTTPError"},
  };
  for (auto [file, type] : cases) {
    SCOPED_TRACE(type);
    forget();
    file.name = "a.pdf";
    file.content = "content";
    const auto id = addJob(
        "say ran",
        {.label = "mail", .taskSpace = "u1-a", .files = {{.name = "fine", .content = "x"}, file}});
    EXPECT_EQ(run(), ExitReason::clean());
    const std::string number = std::to_string(id);
    EXPECT_THAT(texts('e'), ElementsAre("job " + number + ": file staging failed: " + type));
    EXPECT_EQ(service.requests().list("complete").back().body,
              R"({"exit_code": 127, "error": "file staging failed"})");
    EXPECT_THAT(service.jobs().lines(id), IsEmpty());
    EXPECT_TRUE(observer->waitFor("finished " + number + " mail 127 file staging failed"));
    EXPECT_TRUE(log->has("space 'u1-a': close -> exit 0"));
  }
}

TEST_F(StagedJob, StopOrRevocationWaitsForADownload) {
  for (const bool revoke : {false, true}) {
    SCOPED_TRACE(revoke ? "revoked" : "stopped");
    forget();
    config.serveJobs.reset();
    addSlowJob();
    start();
    ASSERT_TRUE(service.requests().waitFor("files", 1, kLong));
    const auto begin = std::chrono::steady_clock::now();
    if (revoke) {
      answerWith("poll", 401);
      addJob("say a");  // lets the poll in flight return
      EXPECT_EQ(finish().code(), 3);
    } else {
      EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
  }
}

TEST_F(StagedJob, LeaseRunsOutWhileFilesArrive) {
  service.jobs().setLease(1s);  // long enough for a busy machine, too
  const auto id = addSlowJob(1000, 2000);
  EXPECT_EQ(run(), ExitReason::clean());
  EXPECT_EQ(service.jobs().find(id)->timesLeased, 1u);
  EXPECT_EQ(service.jobs().lines(id), std::vector{std::string(2000, 'x')});
}

TEST_F(StagedJob, CancelOrLossWhileFilesArriveStartsTheScriptAllTheSame) {
  const struct {
    bool cancel;
    std::int64_t exit;
    std::optional<std::string> error;
    const char* line;
  } cases[] = {
      {true, -SIGTERM, std::nullopt, "finished with exit -15 (cancelled)"},
      {false, 127, "driver lost the server mid-job", "lost the server, killing the job: POST"},
  };
  config.serveJobs.reset();
  timings.drainAfterKill = 30s;  // a download that goes on is waited for so long
  for (const auto& row : cases) {
    SCOPED_TRACE(row.line);
    forget();
    const auto id = addSlowJob();
    start();
    ASSERT_TRUE(service.requests().waitFor("files", 1, kLong));
    if (row.cancel) {
      EXPECT_TRUE(service.jobs().cancel(id));
    } else {
      answerWith("lines", 426);
    }
    const auto job = doneJob(id);
    EXPECT_EQ(job.exitCode, row.exit);
    EXPECT_EQ(job.error, row.error);
    EXPECT_THAT(service.jobs().lines(id), IsEmpty());
    EXPECT_TRUE(log->waitFor("job " + std::to_string(id) + ": " + row.line));
    EXPECT_FALSE(log->has("starting `"));
    stopAndFinish();
  }
}

TEST_F(StagedJob, ExecutorThatHasVanishedOrCannotStartHangsTheJob) {
  const TempDir bin;
  const auto program =
      bin.write("browser", "#!/nonexistent/interpreter\n", std::filesystem::perms{0700});
  config.execCommand = "browser nodejs";
  config.extraPathDirs = {bin.path()};
  const auto id = addJob("say ran");
  EXPECT_EQ(run(), ExitReason::clean());
  const std::string error = "[Errno 2] No such file or directory: '" + program + "'";
  EXPECT_EQ(service.jobs().find(id)->exitCode, 127);
  EXPECT_EQ(service.jobs().find(id)->error, "executor failed to start: " + error);
  EXPECT_THAT(texts('e'), ElementsAre("job 1: cannot start executor: " + error));
}

}  // namespace
}  // namespace verdo::test
