#include "VerdoDriverCore/Values/JsonReader.h"

#include "VerdoDriverCore/Values/PyError.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <numeric>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace verdo {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

/// The outermost levels keep so many members each even when there are too many values before them:
/// a poll reply and the job in it, whose identifier may come last.
constexpr std::size_t kOutermostLevels = 2;
constexpr std::size_t kKeptOutermost = 100;

/// Keeps the last value of each repeated key, at the first one's place.
void mergeRepeatedKeys(JV::Object& object) {
  if (object.size() < 2) return;
  std::vector<std::size_t> order(object.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    const int keys = object[a].key.compare(object[b].key);
    return keys != 0 ? keys < 0 : a < b;
  });
  std::vector<bool> isRepeat(object.size());
  bool any = false;
  for (auto first = order.begin(); first != order.end();) {
    const auto end = std::find_if(
        first, order.end(), [&](std::size_t i) { return object[i].key != object[*first].key; });
    if (end - first > 1) object[*first].value = std::move(object[*(end - 1)].value);
    for (auto repeat = first + 1; repeat != end; ++repeat) isRepeat[*repeat] = any = true;
    first = end;
  }
  if (!any) return;
  std::size_t kept = 0;
  for (std::size_t i = 0; i < object.size(); ++i) {
    if (isRepeat[i]) continue;
    if (kept != i) object[kept] = std::move(object[i]);
    ++kept;
  }
  object.resize(kept);
}

/// One reading of one text. Our own, since no reader that Debian packages goes on behind a number
/// or a surrogate that it refuses, and all but one keep a third copy of a long string.
class Reader {
 public:
  Reader(std::string_view text, bool isTolerant, HugeNumber huge = HugeNumber::isDefect)
      : text_(text), isTolerant_(isTolerant), huge_(huge) {}

  JsonReading read() {
    if (text_.starts_with("\xEF\xBB\xBF")) at_ = 3;
    while (beginValue() || endValue()) {
    }
    return {std::move(result_), std::move(defect_)};
  }

 private:
  struct Container {
    bool isObject = false;
    std::string key;
    JV::Object members;
    JV::Array items;
    std::size_t size() const { return isObject ? members.size() : items.size(); }
  };

  [[noreturn]] void fail(std::string_view expected) const {
    throw PyError("JSONDecodeError",
                  at_ < text_.size() ? fmt::format("{} expected at position {}", expected, at_)
                                     : fmt::format("the text ends where {} is expected", expected));
  }

  /// Only the first one is put into words: a text may have millions.
  template <class... Arguments>
  void noteDefect(fmt::format_string<Arguments...> form, Arguments&&... arguments) {
    if (defect_) return;
    defect_ = fmt::format(form, std::forward<Arguments>(arguments)...);
    if (!isTolerant_) throw PyError("JSONDecodeError", *defect_);
  }

  // Places in the text.

  char peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }
  bool accept(char c) {
    if (peek() != c || at_ == text_.size()) return false;
    ++at_;
    return true;
  }
  void skipBlanks() {
    while (at_ < text_.size() && std::string_view(" \t\n\r").find(text_[at_]) != text_.npos) ++at_;
  }

  // Values. Levels that are left out, with all that is in them, are in `levels_` and not in
  // `open_`.

  /// Whether the next value has a place in the result.
  bool isKept() const {
    if (levels_.size() != open_.size()) return false;
    return count_ < kMaxJsonValues ||
           (open_.size() <= kOutermostLevels && open_.back().size() < kKeptOutermost);
  }

  /// Reads a value. True when it is a container and its first element is due.
  bool beginValue() {
    skipBlanks();
    switch (peek()) {
      case '{':
        open(true);
        skipBlanks();
        if (accept('}')) return close();
        readKey();
        return true;
      case '[':
        open(false);
        skipBlanks();
        if (accept(']')) return close();
        return true;
      case '"':
        ++at_;
        return add(isKept() ? JV(string()) : skippedString());
      case 't':
        return add(literal("true", true));
      case 'f':
        return add(literal("false", false));
      case 'n':
        return add(literal("null", nullptr));
      default:
        return add(number());
    }
  }

  /// Goes on behind a value. True when another one is due, false at the end of the text.
  bool endValue() {
    while (!levels_.empty()) {
      skipBlanks();
      const bool inObject = levels_.back();
      if (accept(',')) {
        if (inObject) readKey();
        return true;
      }
      if (!accept(inObject ? '}' : ']')) fail(inObject ? "',' or '}'" : "',' or ']'");
      close();
    }
    skipBlanks();
    if (at_ < text_.size()) fail("the end of the text");
    return false;
  }

  void open(bool isObject) {
    if (levels_.size() == kMaxJsonDepth) {
      noteDefect("nested more than {} levels deep", std::size_t{kMaxJsonDepth});
    } else if (isKept()) {
      ++count_;
      open_.push_back({isObject, {}, {}, {}});
    } else {
      noteTooMany();
    }
    levels_.push_back(isObject);
    ++at_;
  }

  bool close() {
    const bool wasKept = levels_.size() == open_.size();
    const bool wasTooDeep = levels_.size() == kMaxJsonDepth + 1;
    levels_.pop_back();
    if (!wasKept) return wasTooDeep ? add({}) : false;
    Container done = std::move(open_.back());
    open_.pop_back();
    if (!done.isObject) return put(std::move(done.items));
    mergeRepeatedKeys(done.members);
    return put(std::move(done.members));
  }

  /// Counts a value and gives it its place, if it has one. False, for beginValue's sake.
  bool add(JV value) {
    if (!isKept()) return noteTooMany();
    ++count_;
    return put(std::move(value));
  }

  bool noteTooMany() {
    if (levels_.size() == open_.size()) {
      noteDefect("more than {} values", std::size_t{kMaxJsonValues});
    }
    return false;
  }

  bool put(JV value) {
    if (open_.empty()) {
      result_ = std::move(value);
    } else if (Container& parent = open_.back(); parent.isObject) {
      parent.members.push_back({std::move(parent.key), std::move(value)});
    } else {
      parent.items.push_back(std::move(value));
    }
    return false;
  }

  void readKey() {
    skipBlanks();
    if (!accept('"')) fail("a key");
    if (isKept()) {
      open_.back().key = string();
    } else {
      skippedString();
    }
    skipBlanks();
    if (!accept(':')) fail("':'");
  }

  JV literal(std::string_view word, JV value) {
    if (!text_.substr(at_).starts_with(word)) fail("a value");
    at_ += word.size();
    return value;
  }

  JV number() {
    const std::size_t begin = at_;
    bool isInteger = true;
    accept('-');
    if (!accept('0')) readDigits(at_ == begin ? "a value" : "a digit");
    if (accept('.')) {
      isInteger = false;
      readDigits("a digit");
    }
    if (accept('e') || accept('E')) {
      isInteger = false;
      if (!accept('+')) accept('-');
      readDigits("a digit");
    }
    const std::string_view token = text_.substr(begin, at_ - begin);
    std::int64_t integer = 0;
    if (isInteger &&
        std::from_chars(token.data(), token.data() + token.size(), integer).ec == std::errc()) {
      return integer;
    }
    const double real = std::strtod(std::string(token).c_str(), nullptr);
    if (std::isfinite(real)) return real;
    if (huge_ == HugeNumber::isDefect) noteDefect("number out of range at position {}", begin);
    return {};
  }

  void readDigits(std::string_view expected) {
    const std::size_t begin = at_;
    while (peek() >= '0' && peek() <= '9') ++at_;
    if (at_ == begin) fail(expected);
  }

  // Strings; the opening quote has been read.

  /// Read twice, for its length first: room that grew with it would cost as much again.
  std::string string() {
    const std::size_t begin = at_;
    std::size_t size = 0;
    eachPart([&](std::string_view part) { size += part.size(); });
    at_ = begin;
    std::string out;
    out.reserve(size);
    eachPart([&](std::string_view part) { out.append(part); });
    return out;
  }

  JV skippedString() {
    eachPart([](std::string_view) {});
    return {};
  }

  /// Gives the string's content in parts: as it stands in the text where that can be.
  template <class Take>
  void eachPart(Take take) {
    for (;;) {
      const std::size_t begin = at_;
      skipPlain();
      if (at_ > begin) take(text_.substr(begin, at_ - begin));
      if (accept('"')) return;
      if (accept('\\')) {
        std::string character;
        appendUtf8(escaped(), character);
        take(character);
      } else if (static_cast<unsigned char>(peek()) < 0x20) {
        fail("the end of a string");
      } else {
        noteDefect("not UTF-8 at position {}", at_);
        decodeUtf8(text_, at_);
        take(kReplacement);
      }
    }
  }

  /// Moves behind the characters that stand for themselves.
  void skipPlain() {
    while (at_ < text_.size()) {
      const auto byte = static_cast<unsigned char>(text_[at_]);
      if (byte < 0x20 || byte == '"' || byte == '\\') return;
      std::size_t next = at_ + 1;
      if (byte >= 0x80) {
        next = at_;
        const bool isSound = decodeUtf8(text_, next) != kReplacementCharacter ||
                             text_.substr(at_, next - at_) == kReplacement;
        if (!isSound) return;
      }
      at_ = next;
    }
  }

  /// The character of an escape whose backslash has been read.
  char32_t escaped() {
    switch (const char letter = peek(); ++at_, letter) {
      case '"':
      case '\\':
      case '/':
        return static_cast<unsigned char>(letter);
      case 'b':
        return '\b';
      case 'f':
        return '\f';
      case 'n':
        return '\n';
      case 'r':
        return '\r';
      case 't':
        return '\t';
      case 'u':
        return unicodeEscape();
      default:
        --at_;
        fail("an escaped character");
    }
  }

  char32_t unicodeEscape() {
    const char32_t unit = hexUnit();
    if (unit < 0xD800 || unit > 0xDFFF) return unit;
    if (unit < 0xDC00 && text_.substr(at_).starts_with("\\u")) {
      const std::size_t begin = at_;
      at_ += 2;
      const char32_t low = hexUnit();
      if (low >= 0xDC00 && low <= 0xDFFF) return 0x10000 + ((unit - 0xD800) << 10) + low - 0xDC00;
      at_ = begin;  // what follows half a pair stands for itself
    }
    return kReplacementCharacter;
  }

  char32_t hexUnit() {
    constexpr std::size_t kDigits = 4;
    const std::string_view digits = text_.substr(at_, kDigits);
    std::uint32_t unit = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), unit, 16);
    at_ += static_cast<std::size_t>(end - digits.data());
    if (error != std::errc() || end - digits.data() != kDigits) fail("a hexadecimal digit");
    return unit;
  }

  const std::string_view text_;
  const bool isTolerant_;
  const HugeNumber huge_;
  std::size_t at_ = 0;
  std::size_t count_ = 0;
  std::vector<bool> levels_;  ///< all containers around the place; true: an object
  std::vector<Container> open_;
  JV result_;
  std::optional<std::string> defect_;
};

}  // namespace

JV parseJson(std::string_view text, HugeNumber huge) {
  return std::move(Reader(text, false, huge).read().value);
}

JsonReading readJson(std::string_view text) { return Reader(text, true).read(); }

}  // namespace verdo
