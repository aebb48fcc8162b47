#include "VerdoDriverCore/Values/JV.h"

#include <algorithm>
#include <utility>

namespace verdo {

std::optional<double> JV::number() const {
  if (const auto* integer = asInt()) return static_cast<double>(*integer);
  if (const auto* real = asDouble()) return *real;
  return std::nullopt;
}

const JV* JV::find(std::string_view key) const {
  const Object* object = asObject();
  if (!object) return nullptr;
  const auto member = std::find_if(object->rbegin(), object->rend(),
                                   [&](const Member& candidate) { return candidate.key == key; });
  return member == object->rend() ? nullptr : &member->value;
}

JV JV::take(std::string_view key) {
  const JV* found = find(key);
  if (!found) return {};
  auto& object = std::get<Object>(value_);
  const auto member = std::find_if(object.begin(), object.end(), [&](const Member& candidate) {
    return &candidate.value == found;
  });
  JV value = std::move(member->value);
  object.erase(member);
  return value;
}

std::optional<std::string> JV::takeString() {
  auto* text = std::get_if<std::string>(&value_);
  return text ? std::optional(std::exchange(*text, {})) : std::nullopt;
}

bool JV::operator==(const JV& other) const { return value_ == other.value_; }

}  // namespace verdo
