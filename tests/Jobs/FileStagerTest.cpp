#include "VerdoDriverCore/Jobs/FileStager.h"
#include "VerdoDriverCore/Values/PyError.h"
#include "tests/Support/RecordingLog.h"

#include <set>

#include <gmock/gmock.h>

namespace verdo {
namespace {

using testing::ElementsAre;

struct Staged {
  std::string payload;  ///< or "{type}: {message}" of the failure
  std::vector<std::string> destinations;
  std::vector<test::RecordingLog::Line> log;
};

/// Stages with a downloader that finds the checksum "sum" everywhere.
Staged stage(std::vector<JobFile> files, const std::string& payload,
             const std::string& directory = "/d") {
  Job job;
  job.id = 9;
  job.files = std::move(files);
  test::RecordingLog log;
  Staged staged;
  const auto download = [&](const std::string&, const std::string& destination) -> std::string {
    staged.destinations.push_back(destination);
    return "sum";
  };
  try {
    staged.payload = FileStager::stage(job, payload, download, log, directory);
  } catch (const PyError& error) {
    staged.payload = pyDescribe(error);
  }
  staged.log = log.lines();
  return staged;
}

TEST(FileStager, MakesSafeNames) {
  const struct {
    std::string name, safe;
  } cases[] = {
      {"Report-1_final.PDF", "Report-1_final.PDF"},
      {"../../etc/passwd", ".._.._etc_passwd"},
      {"a b\tc", "a_b_c"},
      {"grüße 😀.txt", "gr__e__.txt"},
      {"\xff\xfe", "__"},
      {std::string("a\0b", 3), "a_b"},
      {"", "file"},
      {".", "file"},
      {"..", "file"},
      {"...", "..."},
      {"/", "_"},
      {std::string(300, 'x') + ".pdf", std::string(196, 'x') + ".pdf"},
  };
  for (const auto& [name, safe] : cases) EXPECT_EQ(FileStager::safeName(name), safe) << name;
}

TEST(FileStager, KeepsFilesApartWhoseSafeNamesCollide) {
  const std::string longName(250, 'x');
  const Staged staged = stage({{"a b", "u", "sum"},
                               {"a_b", "u", "sum"},
                               {"2-a_b", "u", "sum"},
                               {"a/b", "u", "sum"},
                               {longName + "1", "u", "sum"},
                               {longName, "u", "sum"},
                               {longName, "u", "sum"}},
                              "");
  std::set<std::string> distinct(staged.destinations.begin(), staged.destinations.end());
  EXPECT_EQ(distinct.size(), 7u);
  EXPECT_EQ(staged.destinations[0], "/d/a_b");
  EXPECT_EQ(staged.destinations[1], "/d/2-a_b");
  for (const auto& path : distinct) EXPECT_LE(path.size(), 3u + 255u);
}

TEST(FileStager, ReplacesPlaceholdersByStringLiterals) {
  const Staged staged =
      stage({{"a.pdf", "u", "sum"}, {"b c", "u", "sum"}},
            "f(__VERDO_FILE__a.pdf__, __VERDO_FILE__a.pdf__); g(__VERDO_FILE__b c__, "
            "__VERDO_FILE__other__, __VERDO_FILE__a.pdf_)",
            "/tmp/q\"\\\n\t\b\f\r\x01\x1f ü");
  const std::string quoted = "\"/tmp/q\\\"\\\\\\n\\t\\b\\f\\r\\u0001\\u001f ü/";
  EXPECT_EQ(staged.payload, "f(" + quoted + "a.pdf\", " + quoted + "a.pdf\"); g(" + quoted +
                                "b_c\", __VERDO_FILE__other__, __VERDO_FILE__a.pdf_)");
  EXPECT_THAT(staged.log, ElementsAre(test::RecordingLog::Line{'i', "job 9: 2 file(s) staged"}));
}

TEST(FileStager, FailsLikePython) {
  const struct {
    JobFile file;
    const char* failure;
  } cases[] = {
      {{"a", {}, "sum"}, "KeyError: 'url'"},
      {{"a", "u", {}}, "KeyError: 'sha256'"},
      {{"a b", "u", "other"}, "ValueError: staged file a b failed its checksum"},
      {{"a", "u", "SUM"}, "ValueError: staged file a failed its checksum"},
  };
  for (const auto& [file, failure] : cases) {
    const Staged staged = stage({file}, "x");
    EXPECT_EQ(staged.payload, failure);
    EXPECT_THAT(staged.log, testing::IsEmpty());
  }
}

}  // namespace
}  // namespace verdo
