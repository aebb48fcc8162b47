#pragma once

#include "LocalService/ProviderRules.h"
#include "LocalService/Routes.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace verdo::local {

/// The OpenAI-style LLM provider: chat completions and the list of models.
class ProviderEndpoints final : public RouteGroup {
 public:
  static constexpr std::string_view kPrefix = "/llm";

  /// `rules` outlives this. Throws std::invalid_argument when the key is empty.
  ProviderEndpoints(ProviderRules& rules, std::string key);
  std::optional<Route> match(std::string_view method, std::string_view path) override;

 private:
  bool authorized(Exchange& exchange) const;  ///< false: answered 401
  void chat(Exchange& exchange);

  ProviderRules& rules_;
  const std::string key_;
  std::atomic<std::uint64_t> completions_ = 0;
};

}  // namespace verdo::local
