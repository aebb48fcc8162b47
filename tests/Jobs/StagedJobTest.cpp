#include "tests/Support/DriverFixture.h"

#include <filesystem>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using local::FaultReply;
using local::FileSpec;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class StagedJob : public DriverFixture {
 protected:
  StagedJob() { config.serveJobs = 1; }

  std::vector<std::string> stagingDirectories() const {
    std::vector<std::string> found;
    if (!std::filesystem::exists(stagingCache())) return found;
    for (const auto& entry : std::filesystem::directory_iterator(stagingCache())) {
      if (entry.is_directory()) found.push_back(entry.path());
    }
    return found;
  }
};

TEST_F(StagedJob, ScriptDoesNotFindItsFile) {
  local::LocalService other;
  other.start();
  const std::string elsewhere =
      other.url() + other.files().add({.name = "far", .content = "from far"});
  // A hostile name in the address would be tidied away by any client.
  const std::string far =
      service.url() + service.files().add({.name = "far", .content = "from far"});
  struct Case {
    FileSpec file;
    std::string content;
  };
  const Case cases[] = {
      {{.name = "a.pdf", .content = "plain"}, "plain"},
      {{.name = "a.pdf", .content = "absolute", .absoluteUrl = true}, "absolute"},
      {{.name = "../../../etc/pass wd", .content = "from far", .url = far}, "from far"},
      {{.name = "..", .content = "from far", .url = far}, "from far"},
      {{.name = "Ünï\n\"'$(x)", .content = "hostile"}, "hostile"},
      {{.name = std::string(400, 'n'), .content = "long"}, "long"},
      {{.name = "far", .content = "from far", .redirect = elsewhere}, "from far"},
      {{.name = "far", .content = "from far", .url = elsewhere}, "from far"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.file.name);
    log = std::make_shared<RecordingLog>();
    const auto id =
        addJob("cat __VERDO_FILE__" + row.file.name + "__", {.label = "mail", .files = {row.file}});
    EXPECT_EQ(run(), ExitReason::clean());
    EXPECT_THAT(service.jobs().lines(id), ElementsAre(row.content));
    EXPECT_TRUE(log->has("job " + std::to_string(id) + ": 1 file(s) staged"));
    EXPECT_THAT(stagingDirectories(), IsEmpty());
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

TEST_F(StagedJob, FilesWithTheSameSafeNameOverwriteEachOther) {
  const auto id =
      addJob("say __VERDO_FILE__a/b__ __VERDO_FILE__a:b__ __VERDO_FILE__other__",
             {.files = {{.name = "a/b", .content = "one"}, {.name = "a:b", .content = "two"}}});
  EXPECT_EQ(run(), ExitReason::clean());
  const auto lines = service.jobs().lines(id);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[0], lines[1]);
  EXPECT_THAT(lines[0], StartsWith(stagingCache() + "/verdo-"));
  EXPECT_EQ(lines[2], "__VERDO_FILE__other__");
  EXPECT_EQ(std::filesystem::status(stagingCache()).permissions(), std::filesystem::perms{0700});
}

TEST_F(StagedJob, FileThatCannotBeHadIsRunWithout) {
  const std::string refused = "http://127.0.0.1:1/x";
  struct Case {
    FileSpec file;
    const char* type;
  };
  const Case cases[] = {
      {{.sha256 = std::string(64, '0')}, "ValueError"},
      {{.omitSha256 = true}, "KeyError"},
      {{.omitUrl = true}, "KeyError"},
      {{.url = refused}, "URLError"},
      {{.url = "http://[bad"}, "ValueError"},
      {{.url = "file:///etc/passwd"}, "ValueError"},
      {{.redirect = "file:///etc/passwd"}, "URLError"},
      {{.truncateAfter = 3}, "URLError"},
      {{.status = 404}, "HTTPError"},
      {{.status = 500}, "HTTPError"},
  };
  for (auto row : cases) {
    SCOPED_TRACE(row.type);
    log = std::make_shared<RecordingLog>();
    observer = std::make_shared<RecordingObserver>();
    row.file.name = "a.pdf";
    row.file.content = "content";
    const auto id = addJob("say ran", {.label = "mail",
                                       .taskSpace = "u1-a",
                                       .files = {{.name = "fine", .content = "x"}, row.file}});
    EXPECT_EQ(run(), ExitReason::clean());
    const std::string number = std::to_string(id);
    EXPECT_THAT(texts('e'), ElementsAre("job " + number + ": file staging failed: " + row.type));
    EXPECT_EQ(service.requests().list("complete").back().body,
              R"({"exit_code": 127, "error": "file staging failed"})");
    EXPECT_THAT(service.jobs().lines(id), IsEmpty());
    EXPECT_THAT(stagingDirectories(), IsEmpty());
    EXPECT_TRUE(observer->waitFor("finished " + number + " mail 127 file staging failed"));
    EXPECT_TRUE(log->has("space 'u1-a': close -> exit 0"));
  }
}

TEST_F(StagedJob, StopOrRevocationWaitsForADownload) {
  for (const bool revoke : {false, true}) {
    SCOPED_TRACE(revoke ? "revoked" : "stopped");
    service.reset();
    config.serveJobs.reset();
    service.faults().add(
        {.endpoint = "files", .delivery = local::Delivery::trickled, .bytesPerSecond = 200});
    addJob("say ran", {.files = {{.name = "a", .content = std::string(100'000, 'x')}}});
    start();
    ASSERT_TRUE(service.requests().waitFor("files", 1, kLong));
    if (revoke) {
      service.faults().add(
          {.endpoint = "poll", .reply = local::FaultReply{.status = 401, .body = "no"}});
      addJob("say a");  // lets the poll in flight return
      const auto begin = std::chrono::steady_clock::now();
      EXPECT_EQ(finish().code(), 3);
      EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
    } else {
      EXPECT_EQ(stopAndFinish(), ExitReason::stopped());
      EXPECT_LT(elapsed.count(), 5);
    }
  }
}

TEST_F(StagedJob, LeaseRunsOutWhileFilesArrive) {
  service.jobs().setLease(400ms);
  service.faults().add(
      {.endpoint = "files", .delivery = local::Delivery::trickled, .bytesPerSecond = 1000});
  const auto id = addJob("cat __VERDO_FILE__a__",
                         {.files = {{.name = "a", .content = std::string(1200, 'x')}}});
  EXPECT_EQ(run(), ExitReason::clean());
  EXPECT_EQ(service.jobs().find(id)->timesLeased, 1u);
  EXPECT_EQ(service.jobs().lines(id), std::vector{std::string(1200, 'x')});
}

TEST_F(StagedJob, CancelOrLossWhileFilesArriveStartsTheScriptAllTheSame) {
  struct Case {
    const char* what;
    std::optional<FaultReply> answer;  // to the heartbeats
    std::int64_t exit;
    std::optional<std::string> error;
    const char* line;
  };
  const Case cases[] = {
      {"cancel", std::nullopt, -15, std::nullopt, "finished with exit -15 (cancelled)"},
      {"loss", FaultReply{.status = 426, .body = "old"}, 127, "driver lost the server mid-job",
       "lost the server, killing the job: POST"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.what);
    service.reset();
    log = std::make_shared<RecordingLog>();
    config.serveJobs.reset();
    service.faults().add(
        {.endpoint = "files", .delivery = local::Delivery::trickled, .bytesPerSecond = 100});
    const auto id =
        addJob("say ran", {.files = {{.name = "a", .content = std::string(100'000, 'x')}}});
    start();
    ASSERT_TRUE(service.requests().waitFor("files", 1, kLong));
    if (row.answer) {
      service.faults().add({.endpoint = "lines", .reply = row.answer});
    } else {
      EXPECT_TRUE(service.jobs().cancel(id));
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
  std::filesystem::create_directory(path("bin"));
  const std::string program = path("bin/browser");
  std::ofstream(program) << "#!/nonexistent/interpreter\n";
  std::filesystem::permissions(program, std::filesystem::perms{0700});
  config.execCommand = "browser nodejs";
  config.extraPathDirs = {path("bin")};
  const auto id = addJob("say ran");
  EXPECT_EQ(run(), ExitReason::clean());
  const std::string error = "[Errno 2] No such file or directory: '" + program + "'";
  EXPECT_EQ(service.jobs().find(id)->exitCode, 127);
  EXPECT_EQ(service.jobs().find(id)->error, "executor failed to start: " + error);
  EXPECT_THAT(texts('e'), ElementsAre("job 1: cannot start executor: " + error));
}

}  // namespace
}  // namespace verdo::test
