#include "LocalService/ProviderRules.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

namespace verdo::local {
namespace {

constexpr std::array<std::string_view, 6> kCompletionKeys{"id",    "object",  "created",
                                                          "model", "choices", "usage"};

void check(const ProviderRule& rule) {
  if (rule.delay.count() < 0 || rule.delay > std::chrono::hours(24)) {
    throw std::invalid_argument("a provider rule's delay must be from 0 to a day");
  }
  if (rule.keepAlive.count() < 0 || rule.keepAlive > std::chrono::hours(24)) {
    throw std::invalid_argument("a provider rule's keep-alive interval must be from 0 to a day");
  }
  if (rule.untilClose && rule.keepAlive.count() == 0) {
    throw std::invalid_argument(
        "a provider rule whose body lasts until the close needs a keep-alive interval");
  }
  if (rule.status < 200 || rule.status > 599) {
    throw std::invalid_argument("a provider rule's status must be from 200 to 599");
  }
  for (const auto& key : rule.omit) {
    if (std::ranges::find(kCompletionKeys, key) == kCompletionKeys.end()) {
      throw std::invalid_argument(
          "a provider rule can omit id, object, created, model, choices and "
          "usage, not \"" +
          key + "\"");
    }
  }
}

}  // namespace

std::string jsonText(const nlohmann::ordered_json& value) {
  return value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::uint64_t ProviderRules::add(ProviderRule rule) {
  check(rule);
  auto contentJson = rule.content ? jsonText(*rule.content) : std::string();
  auto prepared = std::make_shared<const Prepared>(
      Prepared{.rule = std::move(rule), .contentJson = std::move(contentJson)});
  const MutexLock lock(mutex_);
  entries_.push_back(Entry{.id = nextId_, .prepared = std::move(prepared)});
  return nextId_++;
}

std::shared_ptr<const ProviderRules::Prepared> ProviderRules::pick(std::string_view requestBody) {
  const MutexLock lock(mutex_);
  for (auto& entry : entries_) {
    const auto& rule = entry.prepared->rule;
    if (rule.count && entry.hits >= *rule.count) continue;
    if (requestBody.find(rule.match) == std::string_view::npos) continue;
    ++entry.hits;
    return entry.prepared;
  }
  return nullptr;
}

std::vector<ProviderRuleStatus> ProviderRules::list() const {
  std::vector<ProviderRuleStatus> all;
  const MutexLock lock(mutex_);
  all.reserve(entries_.size());
  for (const auto& entry : entries_) all.push_back({entry.id, entry.prepared->rule, entry.hits});
  return all;
}

void ProviderRules::clear() {
  const MutexLock lock(mutex_);
  entries_.clear();
}

}  // namespace verdo::local
