#include "tests/Support/DriverFixture.h"
#include "tests/Support/Misbehaviour.h"

#include <fmt/format.h>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

using Line = RecordingLog::Line;

class Acknowledge : public DriverFixture {
 protected:
  Acknowledge() { config.serveJobs = 1; }
};

TEST_F(Acknowledge, OneJobMakesExactlyTheRequestsAndTextsThatPeopleRelyOn) {
  const auto id = addJob("say a b", {.label = "mail", .taskSpace = "u1-x"});
  EXPECT_EQ(run(), ExitReason::clean());

  EXPECT_THAT(
      log->lines(),
      ElementsAre(Line{'s', "local (user 1) · driver v2026.09.04"},
                  Line{'w',
                       "llm key  : none — browser jobs only (enrich/apply stay off "
                       "until a key is installed)"},
                  Line{'i', "serving up to 3 job(s) at once — ctrl-c to stop"},
                  Line{'i', "job 1 [run u1-x]: starting `" + selfPath() + " --misbehave executor " +
                                path("spaces") + "` (7 bytes of JS)"},
                  Line{'s', "job 1: finished with exit 0"}));
  EXPECT_THAT(observer->events(), ElementsAre("connected local 1 2026.09.04", "started 1 mail run",
                                              "lanes [mail]", "finished 1 mail 0 -", "lanes []"));
  const auto requests = service.requests().list();
  ASSERT_GE(requests.size(), 5u);
  EXPECT_EQ(requests[2].body, R"({"lines": []})");
  EXPECT_EQ(requests.back().target, "/api/driver/jobs/1/complete");
  EXPECT_THAT(service.jobs().lines(id), ElementsAre("a", "b"));
  EXPECT_THAT(closedSpaces(), testing::IsEmpty());
}

TEST_F(Acknowledge, JobThatIsNoLongerOursIsRunAllTheSame) {
  const struct {
    const char* reply;
    const char* state;  ///< null: the job runs
  } cases[] = {
      {R"({})", nullptr},
      {"", nullptr},
      {R"({"ok":"yes","cancel":0,"state":"x"})", nullptr},
      {R"({"ok":false,"state":"queued"})", "queued"},
      {R"({"ok":null,"state":5})", "None"},
      {R"({"ok":true,"cancel":1,"state":"cancelled"})", "cancelled"},
      {R"({"cancel":"no"})", "None"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.reply);
    forget();
    answerWith("lines", 200, row.reply, 1);
    const auto id = addJob("say ran");
    EXPECT_EQ(run(), ExitReason::clean());
    EXPECT_EQ(service.jobs().find(id)->completed, row.state == nullptr);
    if (!row.state) continue;
    EXPECT_EQ(service.requests().count("lines"), 1u);
    EXPECT_EQ(service.requests().count("complete"), 0u);
    EXPECT_EQ(log->lines().back(),
              (Line{'w', "job " + std::to_string(id) + ": no longer ours (state=" + row.state +
                             "); dropping it unrun"}));
  }
}

TEST_F(Acknowledge, LongOutageOrAnOldDriverIsRetriedForOneJob) {
  timings.retryFirst = 200ms;
  timings.retryLongest = 400ms;
  timings.acknowledgeDeadline = 1780ms;
  timings.postDeadline = 5s;
  const std::pair<int, std::uint64_t> cases[] = {
      {503, 6},  // at 0, 1, 3, 5, 7 and 9 units; the limit is just before 9
      {426, 1},
  };
  for (const auto& [status, posts] : cases) {
    forget();
    answerWith("lines", status);
    const auto id = addJob("say ran");
    EXPECT_EQ(run(), ExitReason::clean());
    EXPECT_EQ(service.requests().count("lines"), posts);
    EXPECT_EQ(service.requests().count("complete"), 0u);
    EXPECT_EQ(log->lines().back(),
              (Line{'w', fmt::format("job {0}: could not acknowledge delivery, dropping it unrun: "
                                     "POST /api/driver/jobs/{0}/lines -> {1}: no",
                                     id, status)}));
  }
}

}  // namespace
}  // namespace verdo::test
