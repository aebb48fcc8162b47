#include "VerdoDriverCore/Jobs/FileStager.h"
#include "VerdoDriverCore/Jobs/StagingDirectory.h"
#include "VerdoDriverCore/Values/JsonReader.h"
#include "tests/Support/Children.h"
#include "tests/Support/FailureOf.h"
#include "tests/Support/RecordingLog.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

#include <filesystem>
#include <future>
#include <set>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>

namespace verdo {
namespace {

namespace fs = std::filesystem;
using namespace test;

TEST(Job, ReadsTheServicesObjectTolerantly) {
  auto job = Job::from(parseJson(R"({"job_id": "42", "label": "", "task_space": ""})"));
  ASSERT_TRUE(job);
  EXPECT_EQ(job->id, 42);
  EXPECT_EQ(job->lane, "job-42");
  EXPECT_EQ(job->kind, "run");
  EXPECT_EQ(job->taskSpace, std::nullopt);
  job = Job::from(parseJson(R"({"job_id": 7, "label": 3, "kind": true, "task_space": 1.5,
      "payload": {"a": "é"}, "files": [{"name": "a.pdf", "url": "/a", "sha256": "ab"}, "no", null,
      {"name": "", "url": ""}, {"name": 5, "url": 6, "sha256": 7}]})"));
  ASSERT_TRUE(job);
  EXPECT_EQ(job->lane + job->kind + *job->taskSpace, "3True1.5");
  EXPECT_EQ(job->payload, R"({"a": "\u00e9"})");
  ASSERT_EQ(job->files.size(), 3u);
  EXPECT_EQ(job->files[0].name + *job->files[0].url + *job->files[0].sha256, "a.pdf/aab");
  EXPECT_EQ(job->files[1].name, "file");
  EXPECT_FALSE(job->files[1].url || job->files[1].sha256);
  EXPECT_EQ(job->files[2].name + *job->files[2].url + *job->files[2].sha256, "567");
  for (const char* json : {"{}", "null", R"({"job_id": "4x2"})", R"({"job_id": 4.0})",
                           R"({"job_id": "9223372036854775808"})", R"({"job_id": true})"}) {
    EXPECT_FALSE(Job::from(parseJson(json))) << json;
  }
}

TEST(Job, KeepsItsPayloadTwice) {
  JV object = parseJson(R"({"job_id": 1, "payload": "a long enough text to lie apart", "x": [2],
                            "label": "l", "kind": "k", "task_space": "t", "files": []})");
  const char* text = object.find("payload")->asString()->data();
  const auto job = Job::from(std::move(object));
  EXPECT_EQ(job->payload.data(), text) << "copied";
  EXPECT_EQ(job->raw, parseJson(R"({"x": [2]})"));
}

class FileStagerTest : public testing::Test {
 protected:
  /// The payload, or the failure. Every download has the checksum "sum".
  std::string stage(std::vector<JobFile> files, std::string payload, std::string directory = "/d") {
    Job job;
    job.id = 9;
    job.files = std::move(files);
    const auto download = [&](const std::string&, const std::string& destination) {
      destinations.push_back(destination);
      return std::string("sum");
    };
    const std::string failure = failureOf(
        [&] { payload = FileStager::stage(job, std::move(payload), download, log, directory); });
    return failure.empty() ? payload : failure;
  }

  RecordingLog log;
  Lines destinations;
};

/// A file whose checksum is right.
JobFile fileNamed(const std::string& name) { return {name, "/u", "sum"}; }

TEST_F(FileStagerTest, ReplacesAPlaceholderThatIsNone) {
  const struct {
    std::vector<JobFile> files;
    const char* payload;
    const char* staged;
  } table[] = {
      {{fileNamed("a"), fileNamed("b")},
       "__VERDO_FILE__b____VERDO_FILE__a__ __VERDO_FILE__a_ __VERDO_FILE__c__ __VERDO_FILE__a",
       R"("/d/b""/d/a" __VERDO_FILE__a_ __VERDO_FILE__c__ __VERDO_FILE__a)"},
      // The longest name counts, whatever the order of the files.
      {{fileNamed("a"), fileNamed("a__b"), fileNamed("a__bc")},
       "__VERDO_FILE__a__b__ __VERDO_FILE__a__bb__ __VERDO_FILE__a__bc_",
       R"("/d/a__b" "/d/a"bb__ "/d/a"bc_)"},
      // The first of one name, and nothing in what was put in.
      {{fileNamed("x"), fileNamed("x"), fileNamed("__VERDO_FILE__x")},
       "__VERDO_FILE____VERDO_FILE__x__ __VERDO_FILE__x__",
       R"("/d/__VERDO_FILE__x" "/d/x")"},
      {{fileNamed("_")}, "__VERDO____VERDO_FILE_____", R"(__VERDO__"/d/_")"}};
  for (const auto& row : table) EXPECT_EQ(stage(row.files, row.payload), row.staged);
}

TEST_F(FileStagerTest, NamesThatDifferInCaseOrWhenMadeSafeAreOneFile) {
  const std::string endless(300, 'n');
  std::vector<JobFile> files;
  for (const char* name : {"A", "a", "2-a", "b/c", "A", "b:c"}) files.push_back(fileNamed(name));
  files.push_back(fileNamed(endless + ".pdf"));
  stage(files, "");
  EXPECT_THAT(destinations, testing::ElementsAre("/d/A", "/d/2-a", "/d/2-2-a", "/d/b_c", "/d/3-A",
                                                 "/d/2-b_c", "/d/" + endless.substr(104) + ".pdf"));
}

TEST_F(FileStagerTest, TakesTimeThatGrowsWithTheSquare) {
  constexpr int kPlaceholders = 160'000;
  constexpr int kFiles = 8'000;
  std::string payload;
  for (int i = 0; i < kPlaceholders; ++i) payload += "__VERDO_FILE__a__";
  const auto begin = std::chrono::steady_clock::now();
  const std::string staged = stage({kFiles, fileNamed("a")}, payload);
  EXPECT_EQ(staged.size(), kPlaceholders * std::string_view(R"("/d/a")").size());
  EXPECT_EQ(std::set(destinations.begin(), destinations.end()).size(), kFiles + 0u);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
}

TEST(StagingDirectory, IsPrivateAndGoesWithItsContent) {
  const TempDir home;
  const ScopedEnv variable("HOME", home.path());
  fs::create_directories(home / ".cache/verdo");
  fs::permissions(home / ".cache/verdo", fs::perms{0755});
  std::string path;
  {
    const StagingDirectory directory;
    path = directory.path();
    EXPECT_TRUE(path.starts_with(home / ".cache/verdo/verdo-")) << path;
    EXPECT_EQ(fs::status(path).permissions(), fs::perms{0700});
    EXPECT_EQ(fs::status(home / ".cache/verdo").permissions(), fs::perms{0700});
    fs::create_directories(path + "/deep/er");
    StagingDirectory::removeAbandoned();
    EXPECT_TRUE(fs::exists(path + "/deep/er")) << "its owner lives";
  }
  EXPECT_FALSE(fs::exists(path));
  const auto file = home.write("file", "");
  EXPECT_EQ(failureOf([&] { StagingDirectory directory(file + "/cache"); }),
            "OSError: [Errno 20] Not a directory: '" + file + "/cache'");
}

TEST(StagingDirectory, OutlivesACrashOnlyUntilTheNextStart) {
  const TempDir cache, elsewhere;
  elsewhere.write("precious", "x");
  fs::create_directory(cache / "other");
  fs::create_directory_symlink(elsewhere.path(), cache / "verdo-link");
  const auto child = launchRole({"stage", cache.path()});
  CollectedLines output(child->takeStdout());
  ASSERT_TRUE(output.start().waitForCount(2));
  const std::string path = output.now().front();
  fs::create_directory_symlink(elsewhere.path(), path + "/link");
  StagingDirectory::removeAbandoned(cache.path());
  EXPECT_TRUE(fs::exists(path)) << "its owner lives";
  child->release();
  EXPECT_TRUE(fs::exists(path));
  StagingDirectory::removeAbandoned(cache.path());
  EXPECT_FALSE(fs::exists(path));
  EXPECT_TRUE(fs::exists(cache / "other") && fs::exists(elsewhere / "precious"));
  StagingDirectory::removeAbandoned(cache / "missing");
}

// A driver that was stopped in the midst of it holds nobody up for good.
TEST(StagingDirectory, WaitsForAProcessThatNeverGivesTheCacheBack) {
  const TempDir cache;
  UniqueFd held(::open((cache / ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(::flock(held.get(), LOCK_EX), 0);
  auto waiting = std::async(std::launch::async, [&] {
    StagingDirectory::removeAbandoned(cache.path());
    return failureOf([&] { StagingDirectory(cache.path(), std::chrono::milliseconds(30)); });
  });
  EXPECT_EQ(waiting.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  held.reset();
  EXPECT_THAT(waiting.get(), testing::HasSubstr("Resource temporarily unavailable"));
}

}  // namespace
}  // namespace verdo
