#pragma once

#include "VerdoDriverCore/Contract/DriverConfig.h"
#include "VerdoDriverCore/Contract/DriverObserver.h"
#include "VerdoDriverCore/Contract/ExitReason.h"
#include "VerdoDriverCore/Contract/LogSink.h"
#include "VerdoDriverCore/Contract/Timings.h"
#include "VerdoDriverCore/Jobs/Browser.h"
#include "VerdoDriverCore/Run/Hello.h"
#include "VerdoDriverCore/System/Sync.h"

#include <memory>
#include <optional>
#include <string>
#include <variant>

namespace verdo {

class Api;
class ChatClient;
class Driver;

/// The one way to run the driver: checks the configuration, says hello, serves jobs, and tells
/// how it ended. One runner serves one run.
class DriverRunner {
 public:
  /// `timings` is for tests.
  DriverRunner(DriverConfig config, std::shared_ptr<LogSink> log,
               std::weak_ptr<DriverObserver> observer = {}, Timings timings = {});
  ~DriverRunner();
  DriverRunner(const DriverRunner&) = delete;
  DriverRunner& operator=(const DriverRunner&) = delete;

  /// Runs to the end, blocking the calling thread. Never throws. Makes the process ignore SIGPIPE.
  ExitReason run();
  /// The run came as far as serving: an end by a revoked token or an outdated driver has then been
  /// logged. After run(), on its thread.
  bool hasServed() const { return hasServed_; }
  /// Makes run() return soon, having ended its jobs; a run that has not begun will not serve.
  /// Never waits. Any thread may call it, at any time, again and again.
  void stop() EXCLUDES(lock_);
  /// The path to the service may have changed (a wake-up, another network): its connections are
  /// dropped and what is in flight is asked anew, which nobody notices. Never waits; at most once
  /// in 5 s. Any thread may call it, at any time.
  void networkChanged() EXCLUDES(lock_);
  /// SIGKILL to the processes of all jobs, for a caller that is about to exit. Any thread may call
  /// it.
  void killJobsNow() EXCLUDES(lock_);

  /// The host of a URL, for messages; the text itself when it has none.
  static std::string hostname(const std::string& url);

 private:
  ExitReason runImpl();
  std::optional<ExitReason> settleConfig(const std::string& envFile);
  std::variant<Hello, ExitReason> sayHello(Api& api);
  std::optional<ExitReason> checkKey(const std::string& envFile);
  std::optional<ExitReason> validateKey() EXCLUDES(lock_);
  void endAbandonedJobs();
  std::shared_ptr<Driver> makeDriver(const Hello& hello, std::shared_ptr<Api> api,
                                     ExecutorCommand executor);
  ExitReason serve(const Hello& hello, std::shared_ptr<Api> api, ExecutorCommand executor)
      EXCLUDES(lock_);
  bool isStopRequested() EXCLUDES(lock_);

  DriverConfig config_;     ///< settled when the run begins; the running thread's
  bool hasServed_ = false;  ///< the running thread's
  const std::shared_ptr<LogSink> log_;
  const std::weak_ptr<DriverObserver> observer_;
  const Timings timings_;

  Mutex lock_;
  std::shared_ptr<Driver> driver_ GUARDED_BY(lock_);
  std::shared_ptr<Api> api_ GUARDED_BY(lock_);
  std::shared_ptr<ChatClient> keyCheck_ GUARDED_BY(lock_);
  bool stopRequested_ GUARDED_BY(lock_) = false;
};

}  // namespace verdo
