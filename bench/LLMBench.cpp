#include "VerdoDriverCore/Jobs/LLMLines.h"
#include "bench/Benches.h"
#include "bench/Child.h"
#include "bench/Driver.h"

#include <algorithm>
#include <stdexcept>

#include <fmt/format.h>

namespace verdo::bench {
namespace {

using namespace std::chrono_literals;

constexpr int kCalls = 1000;
constexpr auto kAnswerTime = 2000ms;

std::string promptOf(int number) { return fmt::format("question {}", number); }

std::vector<std::string> expectedLines(int number) {
  std::vector<std::string> lines;
  LLMLines::chunk("echo: " + promptOf(number), [&](auto line) { lines.emplace_back(line); });
  return lines;
}

/// How many jobs ended well with exactly the provider's text.
int intactReplies(local::LocalService& service) {
  int intact = 0;
  for (int i = 0; i < kCalls; ++i) {
    auto lines = service.jobs().lines(i + 1);
    if (lines.empty() || !lines.back().starts_with("__LLMEND__{\"ok\": true")) continue;
    lines.pop_back();
    if (lines == expectedLines(i) && service.jobs().find(i + 1)->exitCode == 0) ++intact;
  }
  return intact;
}

double secondsFromFirstLease(local::LocalService& service) {
  auto first = local::JobSnapshot::Time::max();
  auto last = local::JobSnapshot::Time::min();
  for (const auto& job : service.jobs().list()) {
    first = std::min(first, job.leased.value());
    last = std::max(last, job.finished.value());
  }
  return secondsBetween(first, last);
}

/// CPU seconds of a Python program that makes the same calls and nothing else.
double pythonCalls(local::LocalService& service) {
  const std::string python = "/usr/bin/python3";
  const auto child = Spawn::launch(python,
                                   {python, VERDO_REFERENCE_DIR "/calls.py", service.providerUrl(),
                                    service.providerKey(), std::to_string(kCalls)},
                                   currentEnvironment(), true);
  std::string output;
  LineReader reader(child->takeStdout(), [&](auto lines) { output = lines.back(); });
  reader.start();
  if (!reader.done().waitFor(60s)) throw std::runtime_error("the Python reference did not end");
  return std::stod(output);
}

}  // namespace

void benchLLM(std::vector<Row>& rows) {
  local::LocalService service;
  service.start();
  service.provider().add({.delay = kAnswerTime});
  const double reference = pythonCalls(service);
  service.requests().clear();

  const auto driver = startDriver(service, childCommand("stamp"),
                                  {{"VERDO_LLM_API_KEY", service.providerKey()},
                                   {"VERDO_LLM_BASE_URL", service.providerUrl()}});
  if (!service.requests().waitFor("poll", 1, 10s)) throw std::runtime_error("no poll came");
  const double before = driver.usage().cpu;
  for (int i = 0; i < kCalls; ++i) {
    local::JobSpec spec;
    spec.label = fmt::format("l{}", i);
    spec.kind = "llm";
    spec.payload = fmt::format(R"({{"v": 1, "model": "m", "prompt": "{}"}})", promptOf(i));
    service.jobs().add(spec);
  }
  if (!service.jobs().waitForAllDone(60s)) throw std::runtime_error("the LLM jobs did not end");
  const Usage usage = driver.usage();
  const double cpu = usage.cpu - before;
  const double elapsed = secondsFromFirstLease(service);
  const auto together = service.requests().maxInFlight("chat");
  const int intact = intactReplies(service);

  const auto name = [](const char* what) {
    return fmt::format("{} LLM jobs at once: {}", kCalls, what);
  };
  rows.push_back({name("first lease → last completion"), fmt::format("{:.2f} s", elapsed), "3.50 s",
                  elapsed <= 3.5, "the provider answers after 2.00 s"});
  rows.push_back(
      {name("calls in flight together"), fmt::format("{}", together), "950", together >= 950, ""});
  rows.push_back({name("peak memory"), fmt::format("{:.1f} MB", usage.peakRss), "64 MB",
                  usage.peakRss <= 64, ""});
  rows.push_back({name("CPU"), fmt::format("{:.2f} s", cpu), "0.80 s", cpu <= 0.8,
                  fmt::format("Python, the provider calls alone {:.2f} s", reference)});
  rows.push_back({name("replies intact"), fmt::format("{}", intact), fmt::format("{}", kCalls),
                  intact == kCalls, ""});
}

}  // namespace verdo::bench
