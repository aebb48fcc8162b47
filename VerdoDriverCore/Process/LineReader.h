#pragma once

#include "VerdoDriverCore/System/Pipe.h"
#include "VerdoDriverCore/System/Sync.h"
#include "VerdoDriverCore/System/UniqueFd.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace verdo {

/// A line longer than this many bytes is delivered in pieces, so that a child that never ends its
/// line cannot exhaust memory.
inline constexpr std::size_t kMaxLineBytes = 64u << 20;

/// Cuts a stream of bytes into lines. Lines are views into its buffer, raw bytes without the
/// newline and without one carriage return right before it; repairing them to UTF-8 is left to the
/// consumer, who has to walk over them anyway. Not thread-safe.
class LineSplitter {
 public:
  /// `maxLine`: bytes beyond which a line comes in pieces, more than the 4 of a character.
  explicit LineSplitter(std::size_t maxLine = kMaxLineBytes) : maxLine_(maxLine) {}

  /// Room for at least `size` bytes, to be filled by the caller. Ends the life of earlier lines.
  std::span<char> space(std::size_t size);
  /// Takes the first `size` bytes of the last space() as input and gives the lines that they
  /// complete, valid until the next call of space().
  std::span<const std::string_view> advance(std::size_t size);
  /// The unfinished last line, empty when there is none.
  std::string_view rest() const { return {buffer_.get() + begin_, end_ - begin_}; }

 private:
  void cutOverlongLine();

  struct Free {
    void operator()(char* memory) const;
  };
  const std::size_t maxLine_;
  std::unique_ptr<char, Free> buffer_;
  std::size_t capacity_ = 0;
  std::size_t begin_ = 0;    ///< where the unfinished line begins
  std::size_t scanned_ = 0;  ///< up to where no newline was found
  std::size_t end_ = 0;
  std::vector<std::string_view> lines_;
};

/// Turns a descriptor into lines on a thread of its own, and can feed text into another one (a
/// child's standard input) meanwhile, so that neither side can block the other.
class LineReader {
 public:
  /// Called on the reading thread with the lines of one read, in order.
  using OnLines = std::function<void(std::span<const std::string_view> lines)>;

  /// Takes over `source`, the descriptor to read from.
  LineReader(UniqueFd source, OnLines onLines);
  /// Abandons and joins; nothing is delivered after that. `onLines` must not block for ever.
  ~LineReader();

  /// Writes `text` to `sink` and then closes it, while lines are read and, if need be, after the
  /// last one; a child that has closed its input ends the writing silently. Call it before
  /// start(), if at all.
  void feed(UniqueFd sink, std::string text);
  /// The errno of another failure of that writing, 0 for none. The sink then stays open as long as
  /// this object lives, so that nobody takes the part that was written for the whole. Any thread
  /// may ask.
  int feedError() const { return feedError_; }
  /// Starts the thread. Throws std::system_error.
  void start();
  /// Set once the last line has been delivered and the descriptor is closed.
  const Event& done() const { return done_; }
  /// Makes the thread stop at once, even though someone keeps the other end open. Unread output
  /// is lost. Any thread may call it.
  void abandon();

 private:
  void run();
  void waitForWork();
  bool readSome();
  void writeSome();

  UniqueFd source_;
  UniqueFd sink_;
  UniqueFd unfed_;  ///< the sink of which writing has failed
  std::atomic<int> feedError_ = 0;
  std::string input_;
  std::size_t written_ = 0;
  OnLines onLines_;
  LineSplitter splitter_;
  Pipe wakeUp_;
  std::atomic<bool> abandoned_ = false;
  Event done_;
  std::thread thread_;
};

}  // namespace verdo
