#pragma once

#include "VerdoDriver/Model/SystemEvents.h"
#include "VerdoDriverCore/System/UniqueFd.h"

#include <QTimer>
#include <memory>
#include <optional>
#include <string>

class QSocketNotifier;

namespace verdo {

/// Watches how the kernel would route a packet to the internet: the network counts as reachable
/// while there is a way, by whichever table, rule or prefixes. Needs no network manager. Where the
/// kernel does not tell of changes, the network is reported as reachable, once.
class RouteMonitor : public PathMonitor {
  Q_OBJECT
 public:
  RouteMonitor();
  ~RouteMonitor() override;

  /// Calling it again changes nothing.
  void start() override;

 private:
  bool listen();
  void drain();
  void look();

  UniqueFd socket_;
  std::unique_ptr<QSocketNotifier> notifier_;
  QTimer settled_;                   ///< runs while changes come
  std::optional<std::string> path_;  ///< the latest that was reported; empty when there was none
};

}  // namespace verdo
