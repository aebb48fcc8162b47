#pragma once

#include "LocalService/LocalService.h"
#include "VerdoDriverCore/Run/Runner.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/RecordingLog.h"
#include "tests/Support/RecordingObserver.h"
#include "tests/Support/Sanitized.h"
#include "tests/Support/ScopedEnv.h"
#include "tests/Support/TempDir.h"

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fmt/ranges.h>
#include <gmock/gmock.h>

namespace verdo::test {

/// A service, a home directory and, once started, a run against that service on a thread of its
/// own, with every time constant a fiftieth of the real one. When the test ends, the run is
/// stopped, and neither a descriptor, a thread, a child, a process of a job nor a staging
/// directory may be left.
class DriverFixture : public testing::Test {
 protected:
  explicit DriverFixture(local::LocalServiceOptions options = {});
  ~DriverFixture() override;
  void TearDown() override;

  /// The real constants divided by fifty; limits that only guard against a hang stay longer.
  static Timings scaledTimings();

  /// Begins the run that `config` and `timings` describe.
  void start();
  /// Waits for the run to end by itself and gives its reason.
  ExitReason finish(std::chrono::milliseconds timeout = std::chrono::seconds(30));
  /// Stops the run, and gives its reason and, in `elapsed`, how long that took.
  ExitReason stopAndFinish();
  /// start() and finish().
  ExitReason run() {
    start();
    return finish();
  }

  /// Queues a job whose script is `script` (ExecutorRole.h).
  std::int64_t addJob(const std::string& script, local::JobSpec spec = {}) {
    spec.payload = script;
    return service.jobs().add(std::move(spec));
  }
  /// The same, begins the run, and waits until the service has something of the job's output.
  std::int64_t startJob(const std::string& script, local::JobSpec spec = {});
  /// True once the service has something of the job's output.
  bool hasPrinted(std::int64_t id) const;
  /// A script that prints "ready", waits for letGo(), and then prints so many numbered lines.
  std::string waitScript(int lines = 0) const;
  void letGo() const;
  /// A job of waitScript(`count`) ends well, each of its lines being there once and in order.
  void expectNumbered(std::int64_t id, int count);
  /// True once so many more posts of lines, heartbeats included, have been answered.
  bool waitForPosts(std::uint64_t more) const;
  /// From now on the service answers requests on an endpoint so: `count` of them, or all.
  void answerWith(const std::string& endpoint, int status, const std::string& body = "no",
                  std::optional<std::uint64_t> count = {});
  /// Nothing of the runs before is left in service, log, observer and the executor's files.
  void forget();
  /// What the service knows of a job, once it is done.
  local::JobSnapshot doneJob(std::int64_t id);
  /// The task spaces that the executor has, and those that were closed, in order.
  void setSpaces(const std::vector<std::string>& names) const {
    home_.write("spaces", fmt::format("{}", fmt::join(names, "\n")));
  }
  std::vector<std::string> spaces() const { return linesOf(path("spaces")); }
  std::vector<std::string> closedSpaces() const { return linesOf(path("spaces.closed")); }
  /// From now on the executor hangs in scripts of this kind, "list" or "close", deaf to SIGTERM.
  void hangOn(const std::string& script) const {
    home_.write("spaces.hang", contentOf(path("spaces.hang")) + script + "\n");
  }
  /// The scripts that hung, in order.
  std::vector<std::string> hanging() const { return linesOf(path("spaces.hanging")); }
  /// True once one does.
  bool hangs() const {
    return eventually([this] { return !hanging().empty(); }, kLong);
  }
  /// The texts of the log lines of one level.
  std::vector<std::string> texts(char level) const;
  /// Times between the arrivals of the requests on an endpoint, milliseconds.
  std::vector<double> gaps(const std::string& endpoint) const;
  std::string path(const std::string& name) const { return home_ / name; }
  const std::string& home() const { return home_.path(); }
  std::string stagingCache() const { return home_ / ".cache/verdo"; }

  static constexpr std::chrono::seconds kLong{20};  ///< a wait that fails the test when it is over

 private:
  const std::size_t descriptorsBefore_;
  const std::size_t threadsBefore_;
  TempDir home_;
  ScopedEnv homeVariable_;
  std::unique_ptr<local::LocalService> ownedService_;

 protected:
  local::LocalService& service;
  std::shared_ptr<RecordingLog> log = std::make_shared<RecordingLog>();
  std::shared_ptr<RecordingObserver> observer = std::make_shared<RecordingObserver>();
  DriverConfig config;
  Timings timings = scaledTimings();
  std::shared_ptr<DriverRunner> runner;
  std::chrono::duration<double> elapsed{};

 private:
  std::future<ExitReason> reason_;
  std::thread thread_;
};

}  // namespace verdo::test
