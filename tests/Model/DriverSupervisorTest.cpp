#include "VerdoDriver/Model/DriverSupervisor.h"
#include "tests/Support/AppFixture.h"

#include <thread>

namespace verdo::test {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using ConfigReply = DriverSupervisor::ConfigReply;

class Supervisor : public AppFixture {
 protected:
  Supervisor() {
    QObject::connect(&supervisor, &DriverSupervisor::exited,
                     [this](const ExitReason& reason) { exits.push_back(reason); });
    QObject::connect(&supervisor, &DriverSupervisor::stateChanged,
                     [this] { states.push_back(state()); });
  }

  void start() {
    supervisor.start([this](const ConfigReply& reply) {
      ++asked;
      reply(config);
    });
  }
  /// Starts with a provider that answers when the test says so.
  void startSlowly() {
    supervisor.start([this](const ConfigReply& reply) { replies.push_back(reply); });
  }
  ScriptedDriver& run(std::size_t number) { return *factory->runs.at(number - 1); }
  /// Ends a run and lets the supervisor notice.
  void end(std::size_t number, const ExitReason& reason) {
    const auto lines = log->lines().size();
    run(number).end(reason);
    ASSERT_TRUE(spinUntil([&] { return log->lines().size() > lines; }));
  }
  void report(std::size_t number, const std::function<void(DriverObserver&)>& what) {
    const auto observer = run(number).observer.lock();
    ASSERT_TRUE(observer);
    std::thread([&] { what(*observer); }).join();
    spin();
  }
  static void connected(DriverObserver& observer) { observer.driverConnected("ann", 7, "1.2"); }
  Kind state() const { return kindOf(supervisor.state()); }

  std::optional<DriverConfig> config = DriverConfig("https://s", "token-1234");
  const ExitReason lost = ExitReason::serverUnreachable("gone");
  int asked = 0;
  std::vector<ConfigReply> replies;
  std::vector<ExitReason> exits;
  std::vector<Kind> states;
  DriverSupervisor supervisor{factory, log, clock};
};

TEST_F(Supervisor, DecidesWronglyAfterARun) {
  const struct {
    ExitReason reason;
    std::chrono::milliseconds length;
    bool stopRequested;
    Kind next;
    const char* end;
  } table[] = {
      {ExitReason::clean(), 1000ms, false, Kind::idle, "exit 0 after 1s"},
      {ExitReason::stopped(), 1900ms, false, Kind::idle, "exit 130 after 1s"},
      {ExitReason::badConfig("m"), 0ms, false, Kind::stopped, "exit 2 — m after 0s"},
      {ExitReason::tokenRevoked("m"), 0ms, false, Kind::stopped, "exit 3 — m after 0s"},
      {ExitReason::outOfDate("m"), 0ms, false, Kind::stopped, "exit 6 — m after 0s"},
      {ExitReason::llmKeyRejected("m"), 0ms, false, Kind::stopped, "exit 7 — m after 0s"},
      {ExitReason::noExecutor("m"), 0ms, false, Kind::stopped, "exit 127 — m after 0s"},
      {lost, 59900ms, false, Kind::backoff, "exit 1 — gone after 59s"},
      {lost, 60000ms, false, Kind::starting, "exit 1 — gone after 60s"},
      {lost, 60000ms, true, Kind::idle, "exit 1 — gone after 60s"},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.end);
    DriverSupervisor one(factory, log, clock);
    factory->runs.clear();
    one.start([this](const auto& reply) { reply(config); });
    clock->advance(row.length);
    if (row.stopRequested) one.stop(75s);
    end(1, row.reason);
    EXPECT_THAT(log->lines(), Contains(std::string("» run #1 ended: ") + row.end));
    EXPECT_EQ(kindOf(one.state()), row.next);
    EXPECT_EQ(one.updateAvailable(), row.reason.kind() == ExitReason::Kind::outOfDate);
    EXPECT_EQ(one.lastError().value_or(""), row.reason.message());
    EXPECT_EQ(factory->runs.size(), row.next == Kind::starting ? 2u : 1u);
    factory->runs.back()->end(ExitReason::stopped());
  }
}

TEST_F(Supervisor, BacksOffTooLongOrTooShort) {
  start();
  end(1, lost);
  EXPECT_EQ(supervisor.state(), DriverState(DriverBackoff{clock->now() + 30s, "gone"}));
  clock->advance(29900ms);
  EXPECT_EQ(factory->runs.size(), 1u);
  clock->advance(100ms);
  EXPECT_EQ(state(), Kind::starting);
  end(2, lost);
  supervisor.kick();
  supervisor.kick();  // of no use now, and of no harm
  clock->advance(30s);
  EXPECT_EQ(factory->runs.size(), 3u);
  end(3, lost);
  bool stopped = false;
  supervisor.stop(75s, [&] { stopped = true; });
  EXPECT_FALSE(stopped) << "within the call";
  EXPECT_TRUE(spinUntil([&] { return stopped; }));
  EXPECT_EQ(state(), Kind::idle);
  EXPECT_EQ(clock->pendingCount(), 0u);
  EXPECT_EQ(asked, 3);
}

TEST_F(Supervisor, ShowsWhatARunDoesWrongly) {
  auto complete = std::exchange(config, std::nullopt);
  start();
  supervisor.stop(75s);
  EXPECT_EQ(supervisor.state(), DriverState(DriverStopped{ExitReason::badConfig(
                                    "not connected — press Connect to website in Setup")}));
  complete->llmKey = "key-9876";
  config = complete;
  start();
  start();  // is ignored
  EXPECT_THAT(log->lines(), ElementsAre("» driver run #1 starting (server https://s, token "
                                        "····1234, key ····9876)"));
  report(1, [](auto& observer) { observer.driverRetrying("m", 4.5); });
  EXPECT_EQ(supervisor.retryMessage(), "m — retrying in 5 s");
  report(1, [](auto& observer) { observer.driverRecovered(); });
  EXPECT_FALSE(supervisor.retryMessage() || supervisor.retry());
  report(1, [](auto& observer) { observer.driverRetrying("m", 4.5); });
  report(1, connected);
  report(1, connected);  // no news
  EXPECT_EQ(supervisor.serverVersion(), "1.2");
  EXPECT_EQ(supervisor.retryMessage(), std::nullopt);
  report(1, [](auto& observer) {
    observer.driverBusyLanesChanged({"a:b"});
    observer.driverSharesSpaces("process 7");
    observer.driverJobStarted(5, "a:b", "run");
  });
  EXPECT_EQ(supervisor.lastJob(), "job 5 · a:b · run…");
  report(1, [](auto& observer) { observer.driverJobFinished(6, "a:b", 143, "lost"); });
  EXPECT_EQ(supervisor.lastJob(), "job 6 · a:b · exit 143");
  EXPECT_EQ(supervisor.lastError(), "lost");
  EXPECT_EQ(supervisor.spacesHolder(), "process 7");
  supervisor.forgetHistory();  // of a run that goes on: no
  EXPECT_EQ(supervisor.username(), "ann");
  const auto observer = run(1).observer;
  end(1, ExitReason::clean());
  EXPECT_THAT(supervisor.busyLanes(), IsEmpty());
  EXPECT_EQ(supervisor.spacesHolder(), "");
  EXPECT_THAT(exits, ElementsAre(ExitReason::clean()));
  EXPECT_THAT(states, ElementsAre(Kind::stopped, Kind::starting, Kind::running, Kind::idle));
  EXPECT_TRUE(spinUntil([&] { return observer.expired(); }));
}

TEST_F(Supervisor, UsesAnAnswerThatCameTooLate) {
  startSlowly();
  EXPECT_EQ(state(), Kind::starting);
  supervisor.stop(75s);
  replies.at(0)(config);
  EXPECT_EQ(state(), Kind::idle);
  startSlowly();
  startSlowly();
  replies.at(1)(config);
  EXPECT_THAT(factory->runs, IsEmpty());
  replies.at(2)(config);
  replies.at(2)(config);
  EXPECT_EQ(factory->runs.size(), 1u);
  EXPECT_EQ(clock->pendingCount(), 0u);
}

TEST_F(Supervisor, TakesASilentKeyringForARunOrForAnEmptyOne) {
  const auto locked = tl::make_unexpected(SecretError{SecretError::Kind::locked, 0, "Locked."});
  const DriverState isLocked = DriverWaiting{SecretError::Kind::locked, "Locked."};
  startSlowly();
  clock->advance(999ms);
  EXPECT_EQ(state(), Kind::starting);
  clock->advance(1ms);
  EXPECT_EQ(supervisor.state(), DriverState(DriverWaiting{}));
  supervisor.kick();  // it has not answered yet, and is not asked once more
  replies.at(0)(locked);
  EXPECT_EQ(supervisor.state(), isLocked);
  clock->advance(29900ms);
  EXPECT_EQ(replies.size(), 1u);
  clock->advance(100ms);
  EXPECT_EQ(supervisor.state(), isLocked) << "starting, as long as nobody knows better";
  replies.at(1)(locked);
  supervisor.kick();
  supervisor.secretsChanged();
  ASSERT_EQ(replies.size(), 4u);
  replies[2](locked);  // from before the change
  replies[3](config);
  EXPECT_EQ(factory->runs.size(), 1u);
  supervisor.secretsChanged();
  EXPECT_EQ(replies.size(), 4u) << "for a run that has all it needs";
  end(1, ExitReason::clean());
  supervisor.restart();
  replies.at(4)(locked);
  supervisor.stop(75s);
  EXPECT_EQ(clock->pendingCount(), 0u);
  EXPECT_THAT(states, ElementsAre(Kind::starting, Kind::waiting, Kind::waiting, Kind::starting,
                                  Kind::idle, Kind::starting, Kind::waiting, Kind::idle));
}

TEST_F(Supervisor, StopsARunTwiceOrForgetsWhoWaitsOrWithWhatToGoOn) {
  supervisor.kick();
  supervisor.killJobsNow();  // nobody to tell
  start();
  supervisor.kick();
  supervisor.networkChanged();
  EXPECT_EQ(run(1).networkChanges, 2);
  report(1, [](auto& observer) { observer.driverRetrying("m", 9); });
  int told = 0;
  EXPECT_FALSE(supervisor.isStopping());
  supervisor.stop(75s, [&] { ++told; });
  EXPECT_TRUE(supervisor.isStopping());
  supervisor.stop(1s, [&] { ++told; });
  supervisor.restart();
  supervisor.start([](const auto& reply) { reply(DriverConfig("https://next", "token")); });
  EXPECT_EQ(run(1).stops, 1);
  clock->advance(74s);  // the first time limit holds
  EXPECT_EQ(told, 0);
  end(1, ExitReason::stopped());
  EXPECT_EQ(told, 2);
  clock->advance(75s);  // the time limit of the first run is gone with it
  EXPECT_EQ(state(), Kind::starting);
  EXPECT_FALSE(supervisor.isStopping());
  EXPECT_EQ(run(2).config.server, "https://next") << "the restart";
  EXPECT_EQ(supervisor.retryMessage(), std::nullopt) << "of the run before";
}

TEST_F(Supervisor, StartsAgainAlthoughItWasStoppedAfterTheRestart) {
  start();
  supervisor.restart();
  bool stopped = false;
  supervisor.stop(75s, [&] { stopped = true; });
  end(1, ExitReason::stopped());
  EXPECT_TRUE(stopped);
  EXPECT_EQ(state(), Kind::idle);
  EXPECT_EQ(asked, 1);
}

TEST_F(Supervisor, LetsGoOfAProviderThatIsAtWork) {
  bool isAlive = false;
  QObject::connect(&supervisor, &DriverSupervisor::stateChanged, [this] {
    if (state() == Kind::stopped) start();
  });
  config.reset();
  supervisor.start([&isAlive, own = std::make_shared<int>()](const ConfigReply& reply) {
    const std::weak_ptr<int> watched = own;
    reply(std::nullopt);  // whoever hears of it may start with another provider
    isAlive = !watched.expired();
  });
  EXPECT_TRUE(isAlive);
}

TEST_F(Supervisor, LosesItsWayWhenARunWillNotStop) {
  start();
  report(1, connected);
  report(1, [](auto& observer) { observer.driverBusyLanesChanged({"a"}); });
  bool stopped = false;
  supervisor.stop(75900ms, [&] { stopped = true; });
  supervisor.killJobsNow();
  clock->advance(75900ms);
  EXPECT_TRUE(stopped);
  supervisor.killJobsNow();
  EXPECT_EQ(run(1).kills, 2);
  EXPECT_EQ(state(), Kind::idle);
  EXPECT_THAT(supervisor.busyLanes(), IsEmpty());
  EXPECT_THAT(log->lines(), Contains("» driver did not stop in 75s — draining (no new run until it "
                                     "returns)"));
  start();
  EXPECT_EQ(state(), Kind::starting);
  report(1, connected);  // of an abandoned run: not believed
  EXPECT_EQ(state(), Kind::starting);
  end(1, ExitReason::tokenRevoked("t"));
  EXPECT_THAT(log->lines(), Contains("» drained run #1 returned (exit 3)"));
  EXPECT_THAT(exits, IsEmpty());
  EXPECT_EQ(state(), Kind::starting);

  supervisor.stop(1s);
  clock->advance(1s);
  start();
  supervisor.stop(1s);  // the launch that waits for it
  EXPECT_EQ(state(), Kind::idle);
  end(2, ExitReason::stopped());
  EXPECT_EQ(state(), Kind::idle);
  EXPECT_EQ(factory->runs.size(), 2u);
  EXPECT_EQ(asked, 2);
}

TEST(SupervisorDeathTest, IsUsedOnAnotherThread) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  DriverSupervisor supervisor(nullptr, nullptr, std::make_shared<ManualClock>());
  EXPECT_DEATH(std::thread([&] { supervisor.kick(); }).join(), "must be called on the main");
}

}  // namespace
}  // namespace verdo::test
