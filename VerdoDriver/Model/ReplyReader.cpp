#include "VerdoDriver/Model/ReplyReader.h"

#include "VerdoDriverCore/Values/JsonReader.h"
#include "VerdoDriverCore/Values/PyError.h"

#include <fmt/format.h>

namespace verdo {

ReplyReader::ReplyReader(std::string_view body) {
  try {
    reply_ = parseJson(body);
  } catch (const PyError&) {
    // Not JSON, therefore no object: said below.
  }
  if (!reply_.asObject()) note("it is not a JSON object");
}

std::optional<std::string> ReplyReader::optionalText(std::string_view key) {
  const JV* value = find(key);
  if (!value || value->isNull()) return std::nullopt;
  if (const auto* text = value->asString()) return *text;
  note(fmt::format("\"{}\" is not a text", key));
  return std::nullopt;
}

std::optional<std::int64_t> ReplyReader::optionalInteger(std::string_view key) {
  const JV* value = find(key);
  if (!value || value->isNull()) return std::nullopt;
  if (const auto* integer = value->asInt()) return *integer;
  note(fmt::format("\"{}\" is not an integer", key));
  return std::nullopt;
}

std::string ReplyReader::text(std::string_view key) {
  auto value = optionalText(key);
  if (!value) note(fmt::format("\"{}\" is missing", key));
  return std::move(value).value_or("");
}

std::int64_t ReplyReader::integer(std::string_view key) {
  const auto value = optionalInteger(key);
  if (!value) note(fmt::format("\"{}\" is missing", key));
  return value.value_or(0);
}

void ReplyReader::note(std::string mismatch) {
  if (mismatch_.empty()) mismatch_ = std::move(mismatch);
}

}  // namespace verdo
