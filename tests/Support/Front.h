#pragma once

#include "VerdoDriverCore/Process/Which.h"
#include "VerdoDriverCore/System/Files.h"
#include "tests/Support/Certificates.h"
#include "tests/Support/Children.h"

#include <memory>
#include <stdexcept>
#include <string>

namespace verdo::test {

/// The road to a service (front.mjs): with certificates a proxy that speaks HTTP/2, and in any case
/// connections that can be made to pass nothing on, without the driver being told.
class Front {
 public:
  /// `port` is the service's, in clear, on this machine. `certificates` null: HTTP/1.1 in clear.
  Front(int port, const Certificates* certificates)
      : child_(launch(port, certificates)),
        input_(child_->takeStdin()),
        output_(child_->takeStdout()),
        url_(certificates ? "https://127.0.0.1:" : "http://127.0.0.1:") {
    output_.start();
    url_ += std::to_string(nextNumber());
  }
  /// Where a driver finds the service.
  const std::string& url() const { return url_; }
  /// Lets nothing pass over the connections that are open now; gives how many they are.
  int swallow() { return ask("swallow"); }
  /// Turns the next body on each connection that is open now away unread; gives how many they are.
  int refuse() { return ask("refuse"); }
  /// Takes no further request over the connections of HTTP/2 that are open now; gives how many.
  int leave() { return ask("leave"); }
  /// Resets all streams that are open now; gives how many they are.
  int reset() { return ask("reset"); }
  /// How many connections there have been.
  int connections() { return ask("count"); }

 private:
  static std::unique_ptr<ChildProcess> launch(int port, const Certificates* certificates) {
    const auto node = Which::find("node").value();
    Lines argv{node, VERDO_FRONT_SCRIPT, "--to", std::to_string(port)};
    if (certificates) {
      argv.insert(argv.end(), {"--certificate", certificates->certificate(), "--key",
                               certificates->privateKey()});
    }
    return Spawn::launch(node, argv, currentEnvironment(), true);
  }
  /// Sends a command and gives the number in the answer.
  int ask(const std::string& command) {
    if (writeAll(input_.get(), command + "\n").error != 0) {
      throw std::runtime_error("front.mjs has gone");
    }
    return nextNumber();
  }
  /// The number that the next line ends with.
  int nextNumber() {
    if (!output_.waitForCount(++read_)) throw std::runtime_error("front.mjs does not answer");
    const auto line = output_.now()[static_cast<std::size_t>(read_ - 1)];
    return std::stoi(line.substr(line.rfind(' ') + 1));
  }

  std::unique_ptr<ChildProcess> child_;
  UniqueFd input_;
  CollectedLines output_;
  long read_ = 0;
  std::string url_;
};

}  // namespace verdo::test
