#include "VerdoDriverCore/Jobs/Job.h"
#include "VerdoDriverCore/Values/JsonReader.h"

#include <gmock/gmock.h>

namespace verdo {
namespace {

TEST(Job, ReadsTheServicesObjectTolerantly) {
  const struct {
    const char* json;
    std::int64_t id;
    const char *label, *lane, *kind;
    std::optional<std::string> space;
    const char* payload;
  } cases[] = {
      {R"({"job_id": "42"})", 42, "", "job-42", "run", {}, ""},
      {R"({"job_id": -1, "label": "", "kind": "", "task_space": "", "payload": ""})",
       -1,
       "",
       "job--1",
       "run",
       {},
       ""},
      {R"({"job_id": 7, "label": "lane é", "kind": "llm", "task_space": "u1-x", "payload": "js"})",
       7, "lane é", "lane é", "llm", "u1-x", "js"},
      {R"({"job_id": 7, "label": 3, "kind": true, "task_space": 1.5, "payload": {"a": [1, "é"]}})",
       7, "3", "3", "True", "1.5", R"({"a": [1, "\u00e9"]})"},
      {R"({"job_id": 7, "label": null, "kind": 0, "task_space": false, "files": "x"})",
       7,
       "",
       "job-7",
       "run",
       {},
       ""},
  };
  for (const auto& [json, id, label, lane, kind, space, payload] : cases) {
    SCOPED_TRACE(json);
    const JV object = parseJson(json);
    const auto job = Job::from(object);
    ASSERT_TRUE(job);
    EXPECT_EQ(job->id, id);
    EXPECT_EQ(job->label, label);
    EXPECT_EQ(job->lane, lane);
    EXPECT_EQ(job->kind, kind);
    EXPECT_EQ(job->taskSpace, space);
    EXPECT_EQ(job->payload, payload);
    EXPECT_TRUE(job->files.empty());
    EXPECT_EQ(job->raw, object);
  }
  for (const char* json : {"{}", "[]", "null", R"({"job_id": "4x2"})", R"({"job_id": 4.0})",
                           R"({"job_id": true})", R"({"job_id": 99999999999999999999})"}) {
    EXPECT_FALSE(Job::from(parseJson(json))) << json;
  }
}

TEST(Job, ReadsItsFiles) {
  const auto job = Job::from(parseJson(
      R"({"job_id": 1, "files": [{"name": "a.pdf", "url": "/a", "sha256": "ab"}, "no", null,
          {"name": "", "url": ""}, {"name": 5, "url": 6, "sha256": 7}]})"));
  ASSERT_TRUE(job);
  ASSERT_EQ(job->files.size(), 3u);
  const std::optional<std::string> absent;
  const struct {
    const char* name;
    std::optional<std::string> url, sha256;
  } cases[] = {{"a.pdf", "/a", "ab"}, {"file", absent, absent}, {"5", "6", "7"}};
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(job->files[i].name, cases[i].name);
    EXPECT_EQ(job->files[i].url, cases[i].url);
    EXPECT_EQ(job->files[i].sha256, cases[i].sha256);
  }
}

TEST(LinesReply, TellsWhatTheServiceWants) {
  const struct {
    const char* json;
    bool ok, cancel;
    std::optional<std::string> state;
  } cases[] = {
      {"{}", true, false, {}},
      {"null", true, false, {}},
      {R"({"ok": true, "cancel": false, "state": "running"})", true, false, "running"},
      {R"({"ok": 0, "cancel": "yes", "state": 1})", false, true, {}},
      {R"({"ok": null, "cancel": null, "state": ""})", false, false, ""},
  };
  for (const auto& [json, ok, cancel, state] : cases) {
    const LinesReply reply = LinesReply::from(parseJson(json));
    EXPECT_EQ(reply.ok, ok) << json;
    EXPECT_EQ(reply.cancel, cancel) << json;
    EXPECT_EQ(reply.state, state) << json;
  }
}

}  // namespace
}  // namespace verdo
