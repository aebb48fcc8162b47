#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace verdo {

/// A JSON value. An object keeps its members in insertion order, and that order is the order of
/// output. A plain value: copies are deep, and concurrent reading is safe.
class JV {
 public:
  struct Member;
  using Array = std::vector<JV>;
  using Object = std::vector<Member>;

  JV();
  JV(std::nullptr_t);
  /// Of bool itself only: a pointer, which C++ would take for a truth value, does not compile.
  template <std::same_as<bool> Bool>
  JV(Bool value);
  JV(int value);
  JV(std::int64_t value);
  JV(double value);
  JV(std::string value);
  JV(std::string_view value);
  JV(const char* value);
  JV(Array value);
  JV(Object value);
  JV(const JV& other);
  JV(JV&& other) noexcept;
  JV& operator=(const JV& other);
  JV& operator=(JV&& other) noexcept;
  ~JV();

  bool isNull() const { return std::holds_alternative<std::nullptr_t>(value_); }
  const bool* asBool() const { return std::get_if<bool>(&value_); }
  const std::int64_t* asInt() const { return std::get_if<std::int64_t>(&value_); }
  const double* asDouble() const { return std::get_if<double>(&value_); }
  const std::string* asString() const { return std::get_if<std::string>(&value_); }
  const Array* asArray() const { return std::get_if<Array>(&value_); }
  const Object* asObject() const { return std::get_if<Object>(&value_); }

  /// Takes the member that find() gives out of the object; null when there is none.
  JV take(std::string_view key);
  /// Moves the text out of a string and leaves it empty; absent for every other kind.
  std::optional<std::string> takeString();

  /// The value of an int or a double; absent for every other kind, booleans included.
  std::optional<double> number() const;

  /// The member of an object with this key (the last one, should the key repeat); null when the
  /// value is no object or has no such member. The pointer lives as long as this value.
  const JV* find(std::string_view key) const;

  bool operator==(const JV& other) const;

 private:
  std::variant<std::nullptr_t, bool, std::int64_t, double, std::string, Array, Object> value_;
};

struct JV::Member {
  std::string key;
  JV value;
  bool operator==(const Member& other) const = default;
};

// Behind Member, which they need whole.
inline JV::JV() = default;
inline JV::JV(std::nullptr_t) {}
template <std::same_as<bool> Bool>
JV::JV(Bool value) : value_(value) {}
inline JV::JV(int value) : value_(std::int64_t{value}) {}
inline JV::JV(std::int64_t value) : value_(value) {}
inline JV::JV(double value) : value_(value) {}
inline JV::JV(std::string value) : value_(std::move(value)) {}
inline JV::JV(std::string_view value) : value_(std::string(value)) {}
inline JV::JV(const char* value) : value_(std::string(value)) {}
inline JV::JV(Array value) : value_(std::move(value)) {}
inline JV::JV(Object value) : value_(std::move(value)) {}
inline JV::JV(const JV& other) = default;
inline JV::JV(JV&& other) noexcept = default;
inline JV& JV::operator=(const JV& other) = default;
inline JV& JV::operator=(JV&& other) noexcept = default;
inline JV::~JV() = default;

}  // namespace verdo
