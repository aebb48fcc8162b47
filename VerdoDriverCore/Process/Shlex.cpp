#include "VerdoDriverCore/Process/Shlex.h"

#include <utility>

namespace verdo::Shlex {
namespace {

constexpr std::string_view kSeparators = " \t\n\r";
constexpr std::string_view kEscapableInDoubleQuotes = "\"\\$`";

class Splitter {
 public:
  explicit Splitter(std::string_view text) : text_(text) {}

  std::vector<std::string> split() {
    while (at_ < text_.size()) {
      const char c = text_[at_++];
      if (quote_ == '\'') {
        singleQuoted(c);
      } else if (quote_ == '"') {
        doubleQuoted(c);
      } else {
        unquoted(c);
      }
    }
    if (quote_ != 0) throw Error("No closing quotation");
    endWord();
    return std::move(words_);
  }

 private:
  void singleQuoted(char c) {
    if (c == '\'') {
      quote_ = 0;
    } else {
      word_.push_back(c);
    }
  }

  void doubleQuoted(char c) {
    if (c == '"') {
      quote_ = 0;
    } else if (c == '\\') {
      const char escaped = nextEscaped();
      if (escaped == '\n') return;
      if (kEscapableInDoubleQuotes.find(escaped) == std::string_view::npos) word_.push_back('\\');
      word_.push_back(escaped);
    } else {
      word_.push_back(c);
    }
  }

  void unquoted(char c) {
    if (kSeparators.find(c) != std::string_view::npos) {
      endWord();
    } else if (c == '\\') {
      const char escaped = nextEscaped();
      startWord();
      if (escaped != '\n') word_.push_back(escaped);
    } else if (c == '\'' || c == '"') {
      startWord();
      quote_ = c;
    } else {
      startWord();
      word_.push_back(c);
    }
  }

  char nextEscaped() {
    if (at_ == text_.size()) throw Error("No escaped character");
    return text_[at_++];
  }

  void startWord() { started_ = true; }

  void endWord() {
    if (started_) words_.push_back(std::exchange(word_, {}));
    started_ = false;
  }

  std::string_view text_;
  std::size_t at_ = 0;
  char quote_ = 0;
  std::string word_;
  bool started_ = false;  ///< an empty word counts too, once quotes have begun it
  std::vector<std::string> words_;
};

}  // namespace

std::vector<std::string> split(std::string_view text) { return Splitter(text).split(); }

}  // namespace verdo::Shlex
