#include "VerdoDriverCore/Network/LineBatch.h"

#include "VerdoDriverCore/Values/JsonEscape.h"

#include <algorithm>
#include <cstring>

namespace verdo {
namespace {

constexpr std::string_view kOpening = "{\"lines\": [";
constexpr std::string_view kClosing = "]}";
constexpr std::string_view kSeparator = ", \"";  // with the next line's quote

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

/// Length of the character, escaped or not, that a JSON string's text begins with; both halves of a
/// surrogate pair count as one.
std::size_t escapedLength(std::string_view text) {
  if (text.front() != '\\') return 1;
  if (text[1] != 'u') return 2;
  constexpr std::size_t kUnit = 6;  // \uXXXX
  const bool isPair = (text[2] == 'd' || text[2] == 'D') && std::strchr("89abAB", text[3]) &&
                      text.size() >= 2 * kUnit && text.substr(kUnit).starts_with("\\u");
  return isPair ? 2 * kUnit : kUnit;
}

/// Takes the first string off a list of JSON strings and gives its text, without the quotes.
std::string_view takeString(std::string_view& list) {
  list.remove_prefix(list.find('"') + 1);
  std::size_t end = 0;
  while (list[end] != '"') end += list[end] == '\\' ? 2 : 1;
  const std::string_view text = list.substr(0, end);
  list.remove_prefix(end + 1);
  return text;
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

void LineBatch::addEscaped(std::string_view text) {
  text_.append(empty_ ? "\"" : kSeparator);
  text_.append(text);
  text_.append("\"");
  empty_ = false;
}

std::vector<LineBatch> LineBatch::split(std::string_view body, std::size_t maxBytes,
                                        bool cutLines) {
  body.remove_prefix(kOpening.size());
  body.remove_suffix(kClosing.size());
  std::vector<LineBatch> batches(1);
  const auto put = [&](std::string_view text) {
    if (!batches.back().empty() &&
        batches.back().bytes() + kSeparator.size() + text.size() + 1 > maxBytes) {
      batches.emplace_back();
    }
    batches.back().addEscaped(text);
  };
  // What a batch of one line holds beside the line's text.
  constexpr std::size_t kFrame = kOpening.size() + 2 + kClosing.size();
  const std::size_t longest = maxBytes > 2 * kFrame ? maxBytes - kFrame : kFrame;
  while (!body.empty()) {
    std::string_view text = takeString(body);
    while (cutLines && text.size() > longest) {
      std::size_t end = 0;
      for (auto next = escapedLength(text); end + next <= longest;) {
        end += next;
        next = escapedLength(text.substr(end));
      }
      put(text.substr(0, end));
      text.remove_prefix(end);
    }
    put(text);
  }
  return batches;
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
