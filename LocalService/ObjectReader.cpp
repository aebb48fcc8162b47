#include "LocalService/ObjectReader.h"

#include <algorithm>

namespace verdo::local {

ObjectReader::ObjectReader(const Json& json, std::string what)
    : json_(json), what_(std::move(what)) {
  if (!json.is_object()) throw HttpError(400, what_ + " must be a JSON object");
}

void ObjectReader::fail(const char* key, const std::string& wanted) const {
  throw HttpError(400, what_ + ": \"" + key + "\" must be " + wanted);
}

void ObjectReader::text(const char* key, std::string& value) const {
  if (const auto* member = find(key, &Json::is_string, "a text")) {
    value = member->get<std::string>();
  }
}

void ObjectReader::text(const char* key, std::optional<std::string>& value) const {
  if (has(key)) text(key, value.emplace());
}

void ObjectReader::flag(const char* key, bool& value) const {
  if (const auto* member = find(key, &Json::is_boolean, "true or false")) {
    value = member->get<bool>();
  }
}

void ObjectReader::number(const char* key, double& value) const {
  if (const auto* member = find(key, &Json::is_number, "a number")) {
    value = member->get<double>();
  }
}

void ObjectReader::delay(const char* key, std::chrono::milliseconds& value) const {
  auto given = static_cast<double>(value.count());
  number(key, given);
  if (!(given >= 0 && given <= 86'400'000)) {
    fail(key, "from 0 to 86400000, a day");
  }
  value = std::chrono::milliseconds(static_cast<std::int64_t>(given));
}

void ObjectReader::seconds(const char* key, std::chrono::seconds& value) const {
  auto given = static_cast<std::uint64_t>(value.count());
  count(key, given);
  value = std::chrono::seconds(static_cast<std::int64_t>(std::min<std::uint64_t>(given, 1u << 30)));
}

const ObjectReader::Json* ObjectReader::find(const char* key, bool (Json::*is)() const noexcept,
                                             const char* wanted) const {
  const auto found = json_.find(key);
  if (found == json_.end()) return nullptr;
  if (!((*found).*is)()) fail(key, wanted);
  return &*found;
}

void ObjectReader::refuseOthers(std::initializer_list<std::string_view> known) const {
  for (const auto& [key, value] : json_.items()) {
    if (std::ranges::find(known, key) != known.end()) continue;
    auto message = what_;
    message.append(": unknown key \"").append(key).append("\"; known are");
    for (const auto name : known) message.append(" ").append(name);
    throw HttpError(400, message);
  }
}

}  // namespace verdo::local
