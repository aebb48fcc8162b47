#include "VerdoDriverCore/Values/JsonEscape.h"
#include "VerdoDriverCore/Values/JsonReader.h"
#include "VerdoDriverCore/Values/PyError.h"
#include "VerdoDriverCore/Values/PyJSON.h"
#include "VerdoDriverCore/Values/PyValue.h"
#include "fuzz/Targets.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace verdo::fuzz {
namespace {

std::optional<JV> strictly(std::string_view text) {
  try {
    return parseJson(text);
  } catch (const PyError&) {
    return std::nullopt;
  }
}

std::optional<JsonReading> tolerantly(std::string_view text) {
  try {
    return readJson(text);
  } catch (const PyError&) {
    return std::nullopt;
  }
}

/// As another reader has it.
bool isSame(const JV& value, const nlohmann::json& model) {
  if (model.is_object()) {
    const auto* object = value.asObject();
    return object && object->size() == model.size() &&
           std::all_of(object->begin(), object->end(), [&](const JV::Member& member) {
             const auto found = model.find(member.key);
             return found != model.end() && isSame(member.value, *found);
           });
  }
  if (model.is_array()) {
    const auto* array = value.asArray();
    return array && std::equal(array->begin(), array->end(), model.begin(), model.end(), isSame);
  }
  if (model.is_string()) return value == JV(model.get<std::string>());
  if (model.is_boolean()) return value == JV(model.get<bool>());
  if (model.is_null()) return value.isNull();
  const bool fits = model.is_number_integer() &&
                    (!model.is_number_unsigned() || model.get<std::uint64_t>() <= INT64_MAX);
  return value == (fits ? JV(model.get<std::int64_t>()) : JV(model.get<double>()));
}

bool isTooDeep(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
           return c == '[' || c == '{';
         })) > kMaxJsonDepth;
}

void compareWithOther(std::string_view text, const std::optional<JV>& value) {
  // The other one takes a zero byte for the end, and refuses halves of a surrogate pair.
  if (text.find('\0') != text.npos) return;
  const auto model = nlohmann::json::parse(text, nullptr, false);
  const bool isRead = !model.is_discarded();
  if (isRead && !isTooDeep(text)) require(value.has_value(), "what is JSON can be read");
  if (value && text.find("\\u") == text.npos) require(isRead, "what is read is JSON");
  if (value && isRead) require(isSame(*value, model), "it is read as it stands there");
}

/// A text so long that it is written in pieces.
void writeLong(const std::string& string) {
  std::string text;
  while (text.size() < kJsonPiece + string.size()) text += string;
  const JV value(text);
  std::string whole;
  for (const auto& part : PyJSON::parts(value)) {
    std::string escaped(kJsonExpansion * part.unescaped.size() + kJsonSlack, '\0');
    const char* end = escapeJson(part.unescaped, escaped.data());
    whole += part.text;
    whole.append(escaped.data(), static_cast<std::size_t>(end - escaped.data()));
  }
  require(whole == PyJSON::text(value), "parts make the text");
  require(parseJson(whole) == value, "a long string comes back");
}

}  // namespace

void json(std::string_view bytes) {
  const auto value = strictly(bytes);
  const auto reading = tolerantly(bytes);
  require(value.has_value() == (reading && !reading->defect), "only defects are tolerated");
  if (value) require(reading->value == *value, "tolerance changes no sound value");
  compareWithOther(bytes, value);
  if (!reading) return;

  const JV& read = reading->value;
  const std::string text = PyJSON::text(read);
  require(std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; }),
          "a text is ASCII on one line");
  require(parseJson(text) == read, "what is written comes back");
  require(pyTruthy(&read) == pyStrIfTruthy(&read).has_value(), "truth is that of the text");
  if (const auto number = pyInt(&read)) {
    require(read.asString() || JV(*number) == read, "an integer is itself");
  }
  // Costs as much as a hundred other inputs.
  const auto* string = read.asString();
  if (string && !string->empty() && bytes.size() % 16 == 0) writeLong(*string);
}

}  // namespace verdo::fuzz
