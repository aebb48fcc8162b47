#include "soak/Plan.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <openssl/evp.h>
#include <signal.h>

namespace verdo::soak {

using namespace std::chrono_literals;

namespace {

constexpr int kLargeWords = 150'000;

const char* wordOf(Provider provider) {
  switch (provider) {
    case Provider::slow:
      return "#slow#";
    case Provider::blankLines:
      return "#blank#";
    case Provider::large:
      return "#large#";
    case Provider::refuses:
      return "#refuse#";
    case Provider::prompt:
      break;
  }
  return "#prompt#";
}

/// Words that tell their place, so that no piece of the text is like another.
std::string words(const std::string& first, int count) {
  std::string text = first;
  for (int i = 0; i < count; ++i) text += fmt::format(" {:08}", i);
  return text;
}

std::string promptOf(const JobPlan& plan) {
  return words(fmt::format("{} {}", wordOf(*plan.provider), plan.number), plan.promptWords);
}

std::string base64(std::string_view bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  text.resize(static_cast<std::size_t>(EVP_EncodeBlock(
      reinterpret_cast<unsigned char*>(text.data()),
      reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()))));
  return text;
}

int linesOf(Random& random) {
  const int kind = between(random, 0, 99);
  if (kind < 8) return 0;
  if (kind < 60) return between(random, 1, 60);
  if (kind < 90) return between(random, 60, 600);
  if (kind < 98) return between(random, 600, 3000);
  return between(random, 3000, 20'000);
}

void planPace(JobPlan& plan, Random& random, const PlanOptions& options) {
  const int kind = between(random, 0, 99);
  if (kind < 45) return;  // all at once
  plan.bursts = between(random, 1, 12);
  plan.time = Milliseconds(between(random, 100, options.brief ? 5000 : 9000));
  // Longer than a lease, most of it in silence.
  if (kind == 99) {
    plan.bursts = between(random, 1, 2);
    plan.time = options.lease + 5s;
  }
}

void planEnd(JobPlan& plan, Random& random) {
  const int kind = between(random, 0, 99);
  if (kind < 70) return;
  if (kind < 90) {
    plan.exitCode = between(random, 1, 255);
  } else {
    constexpr std::array kSignals{SIGKILL, SIGTERM, SIGUSR1, SIGSEGV, SIGHUP};
    plan.endSignal = kSignals[static_cast<std::size_t>(between(random, 0, kSignals.size() - 1))];
  }
}

void planFamily(JobPlan& plan, Random& random) {
  const int kind = between(random, 0, 99);
  if (kind < 75) return;
  plan.family = kind < 83 ? Family::heir : kind < 90 ? Family::runaway : Family::lingerer;
  if (plan.family != Family::lingerer) plan.familyLines = plan.lines / 2;
}

void planBrowserJob(JobPlan& plan, Random& random, const PlanOptions& options) {
  plan.lines = linesOf(random);
  if (chance(random, 0.01) && plan.lines > 0) {
    plan.longLine = between(random, 0, plan.lines - 1);
    plan.longBytes = between(random, 100'000, 4'000'000);
  }
  planPace(plan, random, options);
  planEnd(plan, random);
  planFamily(plan, random);
  plan.deaf = chance(random, 0.1) && plan.endSignal != SIGTERM;
  if (chance(random, 0.2)) {
    plan.fileBytes = chance(random, 0.05) ? 2'000'000 : between(random, 1, 60'000);
  }
  plan.space = chance(random, 0.1);
  plan.closesSpace = plan.space && chance(random, 0.7);
}

}  // namespace

int between(Random& random, int from, int to) {
  return from + static_cast<int>(random() % static_cast<std::uint64_t>(to - from + 1));
}

bool chance(Random& random, double probability) {
  return static_cast<double>(random() >> 11) * 0x1p-53 < probability;
}

int JobPlan::exitTold() const {
  if (isLLM()) return provider == Provider::refuses ? 1 : 0;
  return endSignal ? -endSignal : exitCode;
}

JobPlan makePlan(int number, Random& random, const PlanOptions& options) {
  JobPlan plan;
  plan.number = number;
  if (chance(random, 0.1)) plan.lane = fmt::format("lane-{}", between(random, 0, 19));
  if (chance(random, 0.3)) {
    plan.promptWords = chance(random, 0.2) ? between(random, 0, 20'000) : between(random, 0, 900);
    const int kind = between(random, 0, 99);
    plan.provider = kind < 60   ? Provider::prompt
                    : kind < 75 ? Provider::slow
                    : kind < 90 ? Provider::blankLines
                    : kind < 95 ? Provider::refuses
                                : Provider::large;
  } else {
    planBrowserJob(plan, random, options);
  }
  // The first call makes what the driver keeps for all later ones.
  if (number == 0) plan.provider = Provider::prompt;
  if (number > 0 && chance(random, 0.08)) {
    const int kind = between(random, 0, 9);
    // A job that was never begun waits for its lease to run out.
    plan.cancel = kind == 0                     ? Cancel::queued
                  : kind == 1 && !options.brief ? Cancel::atOnce
                                                : Cancel::atWork;
    plan.cancelAfter = Milliseconds(between(random, 50, 6000));
  }
  return plan;
}

std::string fileContent(int number, int bytes) {
  std::string text = fmt::format("file {} ", number);
  text.resize(static_cast<std::size_t>(bytes), static_cast<char>('a' + number % 26));
  return text;
}

std::string modelOf(int number) { return fmt::format("soak-{}", number); }

std::string lineOf(const JobPlan& plan, int index) {
  auto line = fmt::format("{}:{} ", plan.number, index);
  if (index == plan.longLine) {
    // No piece of it is like another.
    const auto size = line.size() + static_cast<std::size_t>(plan.longBytes);
    for (int i = 0; line.size() < size; ++i) line += fmt::format("y{:07}", i);
    line.resize(size);
    return line;
  }
  return line.append(static_cast<std::size_t>((index * 7 + plan.number) % 60), '.');
}

std::vector<std::string> llmLinesOf(const JobPlan& plan) {
  constexpr std::size_t kChunk = 6000;
  const auto reply =
      plan.provider == Provider::large ? words("large", kLargeWords) : "echo: " + promptOf(plan);
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < reply.size(); at += kChunk) {
    lines.push_back("__LLMCHUNK__" + base64(reply.substr(at, kChunk)));
  }
  return lines;
}

std::vector<local::ProviderRule> providerRules() {
  return {{.match = wordOf(Provider::slow), .delay = 4s},
          {.match = wordOf(Provider::blankLines), .delay = 3s, .keepAlive = 250ms},
          {.match = wordOf(Provider::refuses), .status = 400},
          {.match = wordOf(Provider::large), .content = words("large", kLargeWords)}};
}

local::JobSpec specOf(const JobPlan& plan, bool absoluteFiles) {
  local::JobSpec spec{.label = plan.lane, .cancelled = plan.cancel == Cancel::atOnce};
  if (plan.isLLM()) {
    spec.kind = "llm";
    spec.payload = nlohmann::json{{"v", 1},
                                  {"role", "soak"},
                                  {"model", modelOf(plan.number)},
                                  {"prompt", promptOf(plan)},
                                  {"timeout_seconds", 120}}
                       .dump();
    return spec;
  }
  nlohmann::json script{{"number", plan.number},
                        {"lines", plan.lines},
                        {"familyLines", plan.familyLines},
                        {"longLine", plan.longLine},
                        {"longBytes", plan.longBytes},
                        {"time", plan.time.count()},
                        {"bursts", plan.bursts},
                        {"exitCode", plan.exitCode},
                        {"endSignal", plan.endSignal},
                        {"family", static_cast<int>(plan.family)},
                        {"deaf", plan.deaf},
                        {"fileBytes", plan.fileBytes},
                        {"space", ""}};
  if (plan.space) {
    spec.taskSpace = fmt::format("u1-soak-{}", plan.number);
    script["space"] = *spec.taskSpace;
    script["closesSpace"] = plan.closesSpace;
  }
  spec.payload = script.dump();
  if (plan.fileBytes > 0) {
    spec.files = {{.name = "in.txt",
                   .content = fileContent(plan.number, plan.fileBytes),
                   .absoluteUrl = absoluteFiles}};
    spec.payload.insert(1, R"("file":__VERDO_FILE__in.txt__,)");
  }
  return spec;
}

}  // namespace verdo::soak
