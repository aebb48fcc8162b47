#include "VerdoDriverCore/Network/LineBatch.h"

#include "VerdoDriverCore/Values/JsonEscape.h"

#include <algorithm>

namespace verdo {
namespace {

constexpr std::string_view kOpening = "{\"lines\": [";
constexpr std::string_view kClosing = "]}";

/// Lines are escaped in pieces of this size, lest room for the worst case of a very long one is
/// asked for at once. A piece may end inside a character: it is cut before it.
constexpr std::size_t kPiece = 64 * 1024;

std::string_view firstPiece(std::string_view text) {
  if (text.size() <= kPiece) return text;
  const auto isContinuation = [&](std::size_t at) {
    return (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80;
  };
  std::size_t end = kPiece;
  while (end > kPiece - 3 && isContinuation(end)) --end;
  // Four of them belong to no character at the cut.
  return text.substr(0, isContinuation(end) ? kPiece : end);
}

}  // namespace

LineBatch::LineBatch(ByteBuffer buffer) : text_(std::move(buffer)) {
  text_.clear();
  text_.append(kOpening);
}

void LineBatch::add(std::string_view line) {
  constexpr std::size_t kQuotes = 4;  // with the separator
  char* out = text_.room(kJsonExpansion * std::min(line.size(), kPiece) + kJsonSlack + kQuotes);
  if (!empty_) {
    *out++ = ',';
    *out++ = ' ';
  }
  *out++ = '"';
  empty_ = false;
  while (line.size() > kPiece) {
    const std::string_view piece = firstPiece(line);
    text_.commit(escapeJson(piece, out));
    line.remove_prefix(piece.size());
    out = text_.room(kJsonExpansion * kPiece + kJsonSlack + kQuotes);
  }
  out = escapeJson(line, out);
  *out++ = '"';
  text_.commit(out);
}

void LineBatch::truncate(std::size_t size) {
  text_.truncate(size - kClosing.size());
  empty_ = text_.size() == kOpening.size();
}

std::size_t LineBatch::bytes() const { return text_.size() + kClosing.size(); }

ByteBuffer LineBatch::finish() && {
  text_.append(kClosing);
  return std::move(text_);
}

}  // namespace verdo
