#include "tests/Support/ApiFixture.h"

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

class RequestLimits : public ApiFixture {
 protected:
  /// What the request ends with, its status or the sentence of its error, and when, in `took`.
  std::string outcomeOf(HttpRequest request) {
    const auto begin = HttpRequest::Clock::now();
    const HttpResult result = session->perform(std::move(request));
    took = HttpRequest::Clock::now() - begin;
    return result ? std::to_string(result->status) : result.error().description;
  }

  HttpRequest::Clock::duration took{};
};

TEST_F(RequestLimits, DeadlineIsCutToTheLimitOfTheSession) {
  make(options(), {.caCertificates = "", .resourceLimit = 150ms});
  service.faults().add({.delay = 400ms});
  auto request = helloRequest();
  EXPECT_EQ(outcomeOf(request), "Timeout was reached");
  request.deadline = HttpRequest::Clock::now() + 20s;
  EXPECT_EQ(outcomeOf(request), "200");
  constexpr double kMaxPoll = 3580;  // of the option --poll-wait
  EXPECT_GE(HttpSession::Options().resourceLimit, fromSeconds(kMaxPoll) + Timings().pollMargin);
}

TEST_F(RequestLimits, TimeoutEndsAReplyThatMovesOrSparesOneThatDoesNot) {
  auto request = helloRequest();
  request.timeout = 300ms;
  const auto hang = service.faults().add({.delay = 60s});
  EXPECT_EQ(outcomeOf(request), "Timeout was reached");
  EXPECT_GE(took, 300ms);
  EXPECT_LT(took, 2s);
  service.faults().clear(hang);

  // Some 400 bytes at 400 a second: longer than the time-out, but never silent for so long.
  service.faults().add({.delivery = local::Delivery::trickled, .bytesPerSecond = 400});
  EXPECT_EQ(outcomeOf(request), "200");
  EXPECT_GE(took, 600ms);
  request.deadline = HttpRequest::Clock::now() + 400ms;
  EXPECT_EQ(outcomeOf(request), "Timeout was reached");
  EXPECT_LT(took, 2s);
}

TEST_F(RequestLimits, RequestSentAnewHasOnlyWhatTheFirstLeftOfItsTimeout) {
  auto request = helloRequest();
  EXPECT_EQ(outcomeOf(request), "200");
  // A connection that breaks after it was good for a while: libcurl tries another one by itself.
  service.faults().add({.count = 1, .delay = 400ms, .delivery = local::Delivery::reset});
  service.faults().add({.delay = 400ms});
  request.timeout = 600ms;
  EXPECT_EQ(outcomeOf(request), "200");
  EXPECT_EQ(service.requests().count(), 3u);
}

TEST_F(RequestLimits, ControlCharacterOfAHeaderIsSent) {
  for (const auto* character : {"\n", "\r", "\r\nX-Forged: 1", "\t", "\x01", "\x7f"}) {
    auto given = options();
    given.token = "token-begin" + std::string(character) + "token-end";
    make(std::move(given));
    const auto message = failureOf([&] { api->hello(); });
    EXPECT_THAT(message, HasSubstr("A header of the request holds a control character"));
    EXPECT_THAT(message, Not(HasSubstr("token-begin")));
  }
  auto request = helloRequest();
  request.headers.emplace_back("X-Name\r\nX-Forged", "1");
  EXPECT_THAT(outcomeOf(request), HasSubstr("control character"));
  request = helloRequest();
  request.headers.emplace_back("X-Text", std::string("a\0b", 3));
  EXPECT_THAT(outcomeOf(request), HasSubstr("control character"));
  EXPECT_EQ(service.requests().count(), 0u);
}

TEST_F(RequestLimits, RequestThatTheLibraryDoesNotTakeIsSentOtherwise) {
  auto request = helloRequest();
  request.method = std::string(9'000'000, 'M');  // libcurl takes texts of up to 8 MB
  EXPECT_THAT(outcomeOf(request), HasSubstr("cannot be set up (option 10036"));
  EXPECT_EQ(service.requests().count(), 0u);
}

}  // namespace
}  // namespace verdo::test
