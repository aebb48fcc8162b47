// A driver without pauses, in a process of its own: what takes it weeks is done in minutes. It asks
// for jobs again at once, and reports on each many times a second.
//
//   VERDO_DRIVER_TOKEN=… VERDO_LLM_API_KEY=… verdo-bench-hurried SERVICE PROVIDER EXECUTOR
#include "VerdoDriverCore/Run/Runner.h"

#include <cstdlib>
#include <memory>
#include <thread>

#include <unistd.h>

namespace {

using namespace verdo;
using namespace std::chrono_literals;

class NoLog : public LogSink {
 public:
  void info(const std::string&) override {}
  void success(const std::string&) override {}
  void warn(const std::string&) override {}
  void error(const std::string&) override {}
};

Timings withoutPauses() {
  Timings timings;
  timings.reportCycle = 20ms;
  timings.retryFirst = timings.retryLongest = 0ms;
  timings.termination.step = 1ms;
  timings.pollRetryFirst = timings.pollRetryLongest = 0ms;
  timings.emptyPollPause = timings.throttlePause = 0ms;
  timings.childPoll = 1ms;
  return timings;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  DriverConfig config(argv[1], std::getenv("VERDO_DRIVER_TOKEN"));
  config.llmKey = std::getenv("VERDO_LLM_API_KEY");
  config.llmBase = argv[2];
  config.execCommand = argv[3];
  config.pollWait = 0;
  DriverRunner runner(std::move(config), std::make_shared<NoLog>(), {}, withoutPauses());
  // Without whoever started it, it would go on asking a service that is gone, without a pause.
  std::thread([&runner] {
    char ignored = 0;
    while (::read(STDIN_FILENO, &ignored, 1) > 0) {
    }
    runner.killJobsNow();
    ::_exit(0);
  }).detach();
  static_cast<void>(runner.run());
  return 0;
}
