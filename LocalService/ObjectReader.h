#pragma once

#include "LocalService/Routes.h"

#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

namespace verdo::local {

/// Reads the members of one JSON object, each of the type of the variable that it goes to. A member
/// that is not there leaves its variable as it is. Throws HttpError 400 that names the object, the
/// member and what is wanted.
class ObjectReader {
 public:
  using Json = nlohmann::ordered_json;

  /// `json` outlives this; `what` names the object to people: "a fault".
  ObjectReader(const Json& json, std::string what);

  bool has(const char* key) const { return json_.contains(key); }
  void text(const char* key, std::string& value) const;
  void text(const char* key, std::optional<std::string>& value) const;
  void flag(const char* key, bool& value) const;
  template <typename Integer>
  void count(const char* key, Integer& value) const {
    const auto* member = find(key, &Json::is_number_unsigned, "a whole number of at least 0");
    if (member == nullptr) return;
    const auto given = member->get<std::uint64_t>();
    if (!std::in_range<Integer>(given)) {
      fail(key, "at most " + std::to_string(std::numeric_limits<Integer>::max()));
    }
    value = static_cast<Integer>(given);
  }
  template <typename Integer>
  void count(const char* key, std::optional<Integer>& value) const {
    if (has(key)) count(key, value.emplace());
  }
  void number(const char* key, double& value) const;
  void delay(const char* key, std::chrono::milliseconds& value) const;  ///< up to a day
  void seconds(const char* key, std::chrono::seconds& value) const;
  /// The member, if it is there, of which `is` must hold; null: it is not there.
  const Json* find(const char* key, bool (Json::*is)() const noexcept, const char* wanted) const;
  void refuseOthers(std::initializer_list<std::string_view> known) const;

 private:
  [[noreturn]] void fail(const char* key, const std::string& wanted) const;

  const Json& json_;
  const std::string what_;
};

}  // namespace verdo::local
