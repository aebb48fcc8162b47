#pragma once

#include "VerdoDriverCore/System/Sync.h"
#include "tests/Support/Certificates.h"
#include "tests/Support/Children.h"

#include <memory>
#include <string>

namespace verdo::test {

/// The road to a service (front.mjs): with certificates a proxy that speaks HTTP/2, and in any case
/// connections that can be made to pass nothing on, without the driver being told.
class Front {
 public:
  /// `port` is the service's, in clear, on this machine. `certificates` null: HTTP/1.1 in clear.
  Front(int port, const Certificates* certificates);
  /// Where a driver finds the service.
  const std::string& url() const { return url_; }
  /// Lets nothing pass over the connections that are open now; gives how many they are.
  int swallow() { return ask("swallow"); }
  /// How many connections there have been.
  int connections() { return ask("count"); }

 private:
  /// Sends a command and gives the number in the answer.
  int ask(const std::string& command);
  std::string nextLine();

  std::unique_ptr<ChildProcess> child_;
  UniqueFd input_;
  CollectedLines output_;
  std::size_t read_ = 0;
  std::string url_;
};

}  // namespace verdo::test
