#pragma once

#include "VerdoDriver/Model/ConfigSource.h"
#include "VerdoDriver/Model/DriverFactory.h"
#include "VerdoDriverCore/Doctor/Finding.h"

#include <QObject>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace verdo {

/// Finds out, when the user asks, what keeps the driver from working: lets a doctor examine what
/// the next run would be made with, on a thread of its own, beside a run that may be at work. Main
/// thread only.
class Checkup : public QObject {
  Q_OBJECT
 public:
  enum class State {
    closed,  ///< nobody has asked, or the user has seen enough
    running,
    done,
  };

  struct Parts {
    const ConfigSource* source = nullptr;  ///< outlives it, as do the settings
    const SettingsStore* settings = nullptr;
    std::shared_ptr<DriverFactory> factory;
  };
  explicit Checkup(Parts parts) : parts_(std::move(parts)) {}
  ~Checkup() override;

  /// Begins anew, with nothing found; a check that is under way is stopped.
  void begin();
  /// Stops the check that is under way, at once, and forgets what was found.
  void close();
  /// For an app that ends: closes, and gives what is under way this long to take its children
  /// along. Blocks. False when it goes on; it may be left to itself.
  bool end(std::chrono::milliseconds limit);

  State state() const { return state_; }
  /// So far, in the order of the checks.
  const std::vector<Finding>& findings() const { return findings_; }
  /// How many of them have failed.
  std::size_t failures() const;
  /// All findings for strangers, without secrets; empty until the check is done.
  const std::string& report() const { return report_; }

 Q_SIGNALS:
  void changed();

 private:
  struct Examination;

  void examine(const ConfigSource::Outlook& outlook);
  void stop();
  bool isCurrent(const Examination* examination) const;
  void found(const Finding& finding);
  void finish(const std::string& report);

  const Parts parts_;
  State state_ = State::closed;
  std::vector<Finding> findings_;
  std::string report_;
  std::shared_ptr<Examination> examination_;  ///< the last one
  std::vector<std::shared_ptr<Examination>>
      ending_;  ///< those that were stopped, the last one, too
};

}  // namespace verdo
