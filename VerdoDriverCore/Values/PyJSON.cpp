#include "VerdoDriverCore/Values/PyJSON.h"

#include "VerdoDriverCore/Values/JsonEscape.h"

#include <array>
#include <charconv>
#include <cmath>

namespace verdo::PyJSON {
void writeString(std::string_view text, std::string& out) {
  const std::size_t before = out.size();
  out.resize(before + kJsonExpansion * text.size() + kJsonSlack + 2);
  char* at = out.data() + before;
  *at++ = '"';
  at = escapeJson(text, at);
  *at++ = '"';
  out.resize(static_cast<std::size_t>(at - out.data()));
}

std::string pyFloat(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "Infinity" : "-Infinity";
  std::array<char, 32> buffer;
  const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value,
                                 std::chars_format::scientific)
                       .ptr;
  const std::string_view scientific(buffer.data(), static_cast<std::size_t>(end - buffer.data()));
  const auto mark = scientific.find('e');
  int exponent = 0;
  const char* digitsOfExponent = scientific.data() + mark + (scientific[mark + 1] == '+' ? 2 : 1);
  std::from_chars(digitsOfExponent, end, exponent);
  if (exponent < -4 || exponent >= 16) return std::string(scientific);
  // to_chars without a precision keeps the shortest digits in fixed notation as well.
  const auto fixedEnd =
      std::to_chars(buffer.data(), buffer.data() + buffer.size(), value, std::chars_format::fixed)
          .ptr;
  std::string fixed(buffer.data(), fixedEnd);
  if (fixed.find('.') == std::string::npos) fixed += ".0";
  return fixed;
}

void write(const JV& value, std::string& out) {
  if (const auto* flag = value.asBool()) {
    out += *flag ? "true" : "false";
  } else if (const auto* integer = value.asInt()) {
    out += std::to_string(*integer);
  } else if (const auto* real = value.asDouble()) {
    out += pyFloat(*real);
  } else if (const auto* string = value.asString()) {
    writeString(*string, out);
  } else if (const auto* array = value.asArray()) {
    out.push_back('[');
    for (const char* separator = ""; const JV& item : *array) {
      out += separator;
      write(item, out);
      separator = ", ";
    }
    out.push_back(']');
  } else if (const auto* object = value.asObject()) {
    out.push_back('{');
    for (const char* separator = ""; const auto& [key, member] : *object) {
      out += separator;
      writeString(key, out);
      out += ": ";
      write(member, out);
      separator = ", ";
    }
    out.push_back('}');
  } else {
    out += "null";
  }
}

std::string text(const JV& value) {
  std::string out;
  write(value, out);
  return out;
}

std::string pyRepr(std::string_view text) {
  const bool useDouble =
      text.find('\'') != std::string_view::npos && text.find('"') == std::string_view::npos;
  const char quote = useDouble ? '"' : '\'';
  std::string out(1, quote);
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    if (character == quote || character == '\\') {
      out.push_back('\\');
      out.push_back(character);
    } else if (character == '\n') {
      out += "\\n";
    } else if (character == '\r') {
      out += "\\r";
    } else if (character == '\t') {
      out += "\\t";
    } else if (byte < 32 || byte == 127) {
      constexpr char kDigits[] = "0123456789abcdef";
      out += "\\x";
      out.push_back(kDigits[byte >> 4]);
      out.push_back(kDigits[byte & 0xF]);
    } else {
      out.push_back(character);
    }
  }
  out.push_back(quote);
  return out;
}

}  // namespace verdo::PyJSON
