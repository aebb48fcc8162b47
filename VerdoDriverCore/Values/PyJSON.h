#pragma once

#include "VerdoDriverCore/System/ByteBuffer.h"
#include "VerdoDriverCore/Values/JV.h"

#include <string>
#include <string_view>
#include <vector>

/// JSON and quoted texts laid out byte for byte as Python's json.dumps and repr lay them out: the
/// service and its users compare such texts.
namespace verdo::PyJSON {

/// The JSON text of a value: separators ", " and ": ", no line ends.
std::string text(const JV& value);

/// A piece of a JSON text: `text`, and behind it what becomes of `unescaped` in escapeJson.
struct Part {
  std::string text;
  std::string_view unescaped;
};

/// The JSON text of a value in pieces, in which long strings (beyond kJsonPiece) are not escaped
/// yet. They point into the value.
std::vector<Part> parts(const JV& value);

/// Appends a JSON string in pure ASCII, quotes included. Bytes that are not UTF-8 come out as
/// U+FFFD, so any bytes may be given.
void writeString(std::string_view text, ByteBuffer& out);
void writeString(std::string_view text, std::string& out);

/// The shortest decimal that reads back to the same double, always with a point or an exponent;
/// exponents below -4 and from 16 on use exponent notation. "Infinity", "-Infinity" and "NaN" for
/// the rest.
std::string pyFloat(double value);

/// The text in Python's quotes: single ones, unless it holds a single and no double quote.
std::string pyRepr(std::string_view text);

}  // namespace verdo::PyJSON
