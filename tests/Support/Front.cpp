#include "tests/Support/Front.h"

#include "VerdoDriverCore/Process/Which.h"
#include "VerdoDriverCore/System/Files.h"

#include <stdexcept>

namespace verdo::test {
namespace {

std::unique_ptr<ChildProcess> launch(int port, const Certificates* certificates) {
  const auto node = Which::find("node").value();
  std::vector<std::string> argv{node, VERDO_FRONT_SCRIPT, "--to", std::to_string(port)};
  if (certificates) {
    argv.insert(argv.end(), {"--certificate", certificates->certificate(), "--key",
                             certificates->privateKey()});
  }
  return Spawn::launch(node, argv, currentEnvironment(), true);
}

}  // namespace

Front::Front(int port, const Certificates* certificates)
    : child_(launch(port, certificates)),
      input_(child_->takeStdin()),
      output_(child_->takeStdout()) {
  output_.start();
  const std::string greeting = nextLine();
  const std::string key = "listening ";
  if (!greeting.starts_with(key)) throw std::runtime_error("front.mjs: " + greeting);
  url_ = (certificates ? "https://127.0.0.1:" : "http://127.0.0.1:") + greeting.substr(key.size());
}

int Front::ask(const std::string& command) {
  if (writeAll(input_.get(), command + "\n").error != 0) {
    throw std::runtime_error("front.mjs has gone");
  }
  const std::string answer = nextLine();
  return std::stoi(answer.substr(answer.rfind(' ') + 1));
}

std::string Front::nextLine() {
  const auto answered = [&] { return output_.now().size() > read_; };
  if (!eventually(answered, std::chrono::seconds(30))) {
    throw std::runtime_error("front.mjs does not answer");
  }
  return output_.now()[read_++];
}

}  // namespace verdo::test
