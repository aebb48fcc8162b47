#pragma once

#include "VerdoDriverCore/Contract/DriverConfig.h"
#include "VerdoDriverCore/Contract/Timings.h"
#include "VerdoDriverCore/Doctor/Finding.h"
#include "VerdoDriverCore/Doctor/Remedies.h"
#include "VerdoDriverCore/Network/HttpTrace.h"
#include "VerdoDriverCore/System/Sync.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace verdo {

class Api;
class ChatClient;

/// Finds out why a driver does not work, by doing what a driver does before it serves: with the
/// same calls, in order, each check on the ground of those before it. It takes no job and changes
/// nothing but for the cache directory, which it makes as a driver would; unless it is thorough.
class Doctor {
 public:
  struct Options {
    DriverConfig config;
    /// Why the front end could not make a configuration; `config` is then what it knows without.
    std::optional<Finding> configurationDefect;
    std::string envFile;  ///< where a headless driver's settings come from; empty: from elsewhere
    Remedies remedies = Remedies::ofCommandLine();  ///< in the front end's words
    std::function<Finding()> secretStore;           ///< the front end's check of it; null: none
    std::string cache;                              ///< empty: StagingDirectory::defaultCache()
    /// Poll once for a job and post large bodies too: shows proxies that allow neither.
    bool thorough = false;
    Timings::Duration executorTimeout = std::chrono::seconds(45);
    std::uintmax_t minFreeSpace = 100'000'000;  ///< bytes; with less the disk is full
    Timings timings = {};
  };
  /// Called on the thread of run(), right after the check.
  using OnFinding = std::function<void(const Finding&)>;

  /// To be said before a thorough examination begins.
  static constexpr const char* kThoroughWarning =
      "polling once: a job that is waiting may come, and would be delayed until the service offers "
      "it again (a minute, as a rule)";

  explicit Doctor(Options options);
  ~Doctor();
  Doctor(const Doctor&) = delete;
  Doctor& operator=(const Doctor&) = delete;

  /// Makes all checks, and gives what came of each in their order. Blocks, for up to some minutes
  /// where nothing answers. Called once. Makes the process ignore SIGPIPE.
  std::vector<Finding> run(const OnFinding& onFinding = {});
  /// Makes run() return soon; what it has not tried is skipped. Any thread, at any time.
  void stop() EXCLUDES(lock_);

  /// Whether a driver would work: nothing has failed.
  static bool isHealthy(const std::vector<Finding>& findings);

 private:
  Finding configuration() const;
  void examineService(const OnFinding& add) EXCLUDES(lock_);
  void examineReply(const OnFinding& add, Api& api);
  Finding key() EXCLUDES(lock_);
  bool isStopped() const { return interrupted_.isSet(); }

  Options options_;
  const std::shared_ptr<HttpTrace> trace_;
  bool hasService_ = false;  ///< it has answered the hello well

  Event interrupted_;
  Mutex lock_;
  std::shared_ptr<Api> api_ GUARDED_BY(lock_);
  std::shared_ptr<ChatClient> keyCheck_ GUARDED_BY(lock_);
};

}  // namespace verdo
