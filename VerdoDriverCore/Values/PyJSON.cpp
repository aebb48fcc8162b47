#include "VerdoDriverCore/Values/PyJSON.h"

#include "VerdoDriverCore/Values/JsonEscape.h"

#include <array>
#include <charconv>
#include <cmath>
#include <utility>

namespace verdo::PyJSON {
namespace {

/// Appends what escapeJson makes of a piece of text.
void appendEscaped(std::string_view piece, ByteBuffer& out) {
  out.commit(escapeJson(piece, out.room(kJsonExpansion * piece.size() + kJsonSlack)));
}
void appendEscaped(std::string_view piece, std::string& out) {
  const std::size_t before = out.size();
  out.resize(before + kJsonExpansion * piece.size() + kJsonSlack);
  const char* end = escapeJson(piece, out.data() + before);
  out.resize(static_cast<std::size_t>(end - out.data()));
}

template <class Out>
void appendString(std::string_view text, Out& out) {
  out.append("\"");
  while (!text.empty()) {
    const std::string_view piece = firstJsonPiece(text);
    appendEscaped(piece, out);
    text.remove_prefix(piece.size());
  }
  out.append("\"");
}

/// Takes a JSON text without its long strings.
class Outline {
 public:
  void append(std::string_view piece) { text() += piece; }
  /// Where the text goes on.
  std::string& text() {
    if (parts_.empty() || !parts_.back().unescaped.empty()) parts_.emplace_back();
    return parts_.back().text;
  }
  void appendLong(std::string_view string) {
    append("\"");
    parts_.back().unescaped = string;
    append("\"");
  }
  std::vector<Part> take() { return std::move(parts_); }

 private:
  std::vector<Part> parts_;
};

template <class Out>
void putString(std::string_view text, Out& out) {
  writeString(text, out);
}
void putString(std::string_view text, Outline& out) {
  if (text.size() > kJsonPiece) return out.appendLong(text);
  appendString(text, out.text());
}

template <class Out>
void appendValue(const JV& value, Out& out) {
  if (const auto* flag = value.asBool()) {
    out.append(*flag ? "true" : "false");
  } else if (const auto* integer = value.asInt()) {
    out.append(std::to_string(*integer));
  } else if (const auto* real = value.asDouble()) {
    out.append(pyFloat(*real));
  } else if (const auto* string = value.asString()) {
    putString(*string, out);
  } else if (const auto* array = value.asArray()) {
    out.append("[");
    for (const char* separator = ""; const JV& item : *array) {
      out.append(separator);
      appendValue(item, out);
      separator = ", ";
    }
    out.append("]");
  } else if (const auto* object = value.asObject()) {
    out.append("{");
    for (const char* separator = ""; const auto& [key, member] : *object) {
      out.append(separator);
      putString(key, out);
      out.append(": ");
      appendValue(member, out);
      separator = ", ";
    }
    out.append("}");
  } else {
    out.append("null");
  }
}

}  // namespace

void writeString(std::string_view text, ByteBuffer& out) {
  // Words in any script need three times their bytes at most. Room that stays unused costs nothing,
  // while growing by steps may copy what is there.
  if (text.size() > kJsonPiece) out.room(kJsonExpansion / 2 * text.size());
  appendString(text, out);
}

void writeString(std::string_view text, std::string& out) { appendString(text, out); }

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

std::vector<Part> parts(const JV& value) {
  Outline outline;
  appendValue(value, outline);
  return outline.take();
}

std::string text(const JV& value) {
  std::string out;
  appendValue(value, out);
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
