#include "VerdoDriverCore/Jobs/FileStager.h"
#include "VerdoDriverCore/Jobs/StagingDirectory.h"
#include "VerdoDriverCore/Values/JsonReader.h"
#include "tests/Support/Children.h"
#include "tests/Support/FailureOf.h"
#include "tests/Support/RecordingLog.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

#include <filesystem>
#include <set>

#include <gmock/gmock.h>

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
  for (const char* json : {"{}", "[]", "null", R"({"job_id": "4x2"})", R"({"job_id": 4.0})",
                           R"({"job_id": true})", R"({"job_id": 99999999999999999999})"}) {
    EXPECT_FALSE(Job::from(parseJson(json))) << json;
  }
}

TEST(LinesReply, TellsWhatTheServiceWants) {
  const auto read = [](const char* json) {
    const LinesReply reply = LinesReply::from(parseJson(json));
    return std::tuple(reply.ok, reply.cancel, reply.state.value_or("none"));
  };
  EXPECT_EQ(read("{}"), std::tuple(true, false, "none"));
  EXPECT_EQ(read(R"({"ok": 0, "cancel": "yes", "state": 1})"), std::tuple(false, true, "none"));
  EXPECT_EQ(read(R"({"ok": 1, "cancel": 0, "state": "s"})"), std::tuple(true, false, "s"));
}

TEST(FileStager, MakesSafeNames) {
  const std::pair<std::string, std::string> cases[] = {
      {"Report-1_final.PDF", "Report-1_final.PDF"},
      {"../../etc/passwd", ".._.._etc_passwd"},
      {"grüße 😀.txt", "gr__e__.txt"},
      {std::string("\xff\0", 2), "__"},
      {"", "file"},
      {".", "file"},
      {"..", "file"},
      {std::string(300, 'x') + ".pdf", std::string(196, 'x') + ".pdf"}};
  for (const auto& [name, safe] : cases) EXPECT_EQ(FileStager::safeName(name), safe) << name;
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

TEST_F(FileStagerTest, KeepsFilesApartWhoseSafeNamesCollide) {
  std::vector<JobFile> files;
  const std::string longName(250, 'x');
  for (const std::string& name : Lines{"a b", "a_b", "2-a_b", "a/b", longName + "x", longName}) {
    files.push_back({name, "u", "sum"});
  }
  stage(files, "");
  EXPECT_EQ(std::set(destinations.begin(), destinations.end()).size(), files.size());
  for (const auto& path : destinations) EXPECT_LE(path.size(), 3u + 255u);
}

TEST_F(FileStagerTest, ReplacesPlaceholdersByStringLiterals) {
  const std::string quoted = "\"/tmp/q\\\"\\\\\\n\\t\\b\\f\\r\\u0001\\u001f ü/";
  EXPECT_EQ(stage({{"a.pdf", "u", "sum"}, {"b c", "u", "sum"}},
                  "f(__VERDO_FILE__a.pdf__, __VERDO_FILE__a.pdf__); g(__VERDO_FILE__b c__, "
                  "__VERDO_FILE__other__, __VERDO_FILE__a.pdf_)",
                  "/tmp/q\"\\\n\t\b\f\r\x01\x1f ü"),
            "f(" + quoted + "a.pdf\", " + quoted + "a.pdf\"); g(" + quoted +
                "b_c\", __VERDO_FILE__other__, __VERDO_FILE__a.pdf_)");
  EXPECT_THAT(log.lines(),
              testing::ElementsAre(RecordingLog::Line{'i', "job 9: 2 file(s) staged"}));
}

TEST_F(FileStagerTest, FailsLikePython) {
  EXPECT_EQ(stage({{"a", {}, "sum"}}, ""), "KeyError: 'url'");
  EXPECT_EQ(stage({{"a", "u", {}}}, ""), "KeyError: 'sha256'");
  EXPECT_EQ(stage({{"a b", "u", "bad"}}, ""), "ValueError: staged file a b failed its checksum");
  EXPECT_TRUE(log.lines().empty());
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

}  // namespace
}  // namespace verdo
