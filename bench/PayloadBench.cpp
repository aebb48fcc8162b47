#include "bench/Benches.h"
#include "bench/Child.h"
#include "bench/Driver.h"

#include <stdexcept>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace verdo::bench {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kMebibyte = 1u << 20;
constexpr double kMaxGrowth = 2.5;  // times the payload
constexpr double kMegabyte = 1e6;

/// Words, with now and then a character that JSON escapes: often enough to be no plain copy, and
/// seldom enough that a reply may hold them escaped twice and still be within its limit.
std::string words(std::size_t size) {
  std::string paragraph;
  while (paragraph.size() < 4000) paragraph += "some plain words of a prompt, and ";
  paragraph += "the \"end\" of it.\n";
  std::string text;
  text.reserve(size + paragraph.size());
  while (text.size() < size) text += paragraph;
  return text;
}

/// Letters that take two bytes as they are, and six when JSON escapes them.
std::string letters(std::size_t size) {
  std::string text;
  text.reserve(size + 2);
  while (text.size() < size) text += "ж";
  return text;
}

/// Runs one job in a fresh driver and adds what the driver's memory grew by at its worst.
void measure(std::vector<Row>& rows, const std::string& what, const local::JobSpec& job) {
  local::LocalService service;
  service.start();
  service.provider().add({.content = "short"});
  const auto driver = startDriver(service, childCommand("stamp"),
                                  {{"VERDO_LLM_API_KEY", service.providerKey()},
                                   {"VERDO_LLM_BASE_URL", service.providerUrl()}});
  if (!service.requests().waitFor("poll", 1, 10s)) throw std::runtime_error("no poll came");
  const double before = driver.usage().rss;
  const auto id = service.jobs().add(job);
  if (!service.jobs().waitFor(id, local::JobState::done, 60s) ||
      service.jobs().find(id)->exitCode != 0) {
    throw std::runtime_error(fmt::format("the {} did not end well", what));
  }
  const double payload = static_cast<double>(job.payload.size()) / kMegabyte;
  const double growth = driver.usage().peakRss - before;
  rows.push_back({fmt::format("{}: peak memory growth", what),
                  fmt::format("{:.0f} MB, {:.2f} x", growth, growth / payload),
                  fmt::format("{:.1f} x", kMaxGrowth), growth <= kMaxGrowth * payload,
                  fmt::format("the payload itself {:.0f} MB", payload)});
}

}  // namespace

void benchPayload(std::vector<Row>& rows) {
  local::JobSpec job;
  job.payload = words(60 * kMebibyte);
  measure(rows, "browser job with a 60 MiB script", job);
  job.kind = "llm";
  // The smaller one as well: allocators treat blocks of its size in another way.
  const std::pair<const char*, std::string> prompts[] = {
      {"60 MiB prompt", words(60 * kMebibyte)},
      {"20 MiB prompt", words(20 * kMebibyte)},
      {"60 MiB prompt beyond ASCII", letters(60 * kMebibyte)}};
  for (const auto& [what, prompt] : prompts) {
    const nlohmann::json payload{{"v", 1}, {"model", "m"}, {"prompt", prompt}};
    job.payload = payload.dump();
    measure(rows, fmt::format("LLM job with a {}", what), job);
  }
}

}  // namespace verdo::bench
