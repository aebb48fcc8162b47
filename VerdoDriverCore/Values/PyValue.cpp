#include "VerdoDriverCore/Values/PyValue.h"

#include "VerdoDriverCore/Values/PyJSON.h"

#include <charconv>
#include <utility>

namespace verdo {

std::optional<std::string> pyStr(const JV* value) {
  if (!value || value->isNull()) return std::nullopt;
  if (const auto* text = value->asString()) return *text;
  if (const auto* flag = value->asBool()) return *flag ? "True" : "False";
  return PyJSON::text(*value);
}

std::optional<std::string> pyStr(JV&& value) {
  auto text = value.takeString();
  return text ? std::move(text) : pyStr(&value);
}

bool pyTruthy(const JV* value) {
  if (!value || value->isNull()) return false;
  if (const auto* flag = value->asBool()) return *flag;
  if (const auto number = value->number()) return *number != 0;
  if (const auto* text = value->asString()) return !text->empty();
  if (const auto* array = value->asArray()) return !array->empty();
  return !value->asObject()->empty();
}

std::optional<std::string> pyStrIfTruthy(const JV* value) {
  return pyTruthy(value) ? pyStr(value) : std::nullopt;
}

std::optional<std::string> pyStrIfTruthy(JV&& value) {
  return pyTruthy(&value) ? pyStr(std::move(value)) : std::nullopt;
}

std::optional<std::int64_t> pyInt(const JV* value) {
  if (!value) return std::nullopt;
  if (const auto* integer = value->asInt()) return *integer;
  const auto* text = value->asString();
  if (!text) return std::nullopt;
  std::string_view digits = *text;
  // from_chars knows "-" but not "+".
  if (digits.starts_with('+') && !digits.starts_with("+-")) digits.remove_prefix(1);
  std::int64_t result = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), result);
  if (error != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  return result;
}

}  // namespace verdo
