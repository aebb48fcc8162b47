#pragma once

#include "LocalService/ProviderRule.h"
#include "VerdoDriverCore/System/Sync.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace verdo::local {

/// The provider rules in force. Every member may be called from any thread.
class ProviderRules {
 public:
  /// A rule as the answers need it; constant, so that many answers share its large texts.
  struct Prepared {
    ProviderRule rule;
    std::string contentJson;  ///< rule.content as a JSON text; empty without
  };

  /// Throws std::invalid_argument that says which field is wrong.
  std::uint64_t add(ProviderRule rule);
  /// The rule that answers this request; counts the hit. Null: none does.
  std::shared_ptr<const Prepared> pick(std::string_view requestBody);
  std::vector<ProviderRuleStatus> list() const;
  void clear();

 private:
  struct Entry {
    std::uint64_t id = 0;
    std::shared_ptr<const Prepared> prepared;
    std::uint64_t hits = 0;
  };

  mutable Mutex mutex_;
  std::vector<Entry> entries_ GUARDED_BY(mutex_);
  std::uint64_t nextId_ GUARDED_BY(mutex_) = 1;
};

/// A text as JSON; bytes that are not UTF-8 become U+FFFD.
std::string jsonText(const nlohmann::ordered_json& value);

}  // namespace verdo::local
