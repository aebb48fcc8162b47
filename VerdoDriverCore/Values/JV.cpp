#include "VerdoDriverCore/Values/JV.h"

#include <algorithm>

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

bool JV::operator==(const JV& other) const { return value_ == other.value_; }

}  // namespace verdo
