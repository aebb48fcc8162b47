#include "VerdoDriverCore/Network/LineBatch.h"

#include "VerdoDriverCore/Values/JsonEscape.h"

#include <algorithm>

namespace verdo {
namespace {

constexpr std::string_view kOpening = "{\"lines\": [";
constexpr std::string_view kClosing = "]}";

}  // namespace

LineBatch::LineBatch(ByteBuffer buffer) : text_(std::move(buffer)) {
  text_.clear();
  text_.append(kOpening);
}

void LineBatch::add(std::string_view line) {
  constexpr std::size_t kQuotes = 4;  // with the separator
  char* out = text_.room(kJsonExpansion * std::min(line.size(), kJsonPiece) + kJsonSlack + kQuotes);
  if (!empty_) {
    *out++ = ',';
    *out++ = ' ';
  }
  *out++ = '"';
  empty_ = false;
  while (line.size() > kJsonPiece) {
    const std::string_view piece = firstJsonPiece(line);
    text_.commit(escapeJson(piece, out));
    line.remove_prefix(piece.size());
    out = text_.room(kJsonExpansion * kJsonPiece + kJsonSlack + kQuotes);
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
