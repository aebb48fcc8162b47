#include "VerdoDriverCore/Process/LineReader.h"

#include "VerdoDriverCore/System/Files.h"
#include "VerdoDriverCore/System/StartThread.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include <poll.h>
#include <unistd.h>

namespace verdo {
namespace {

constexpr std::size_t kReadSize = 65536;
// A buffer that grew for one long line is given back once it is empty again.
constexpr std::size_t kKeptCapacity = 4 * kReadSize;

bool isContinuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

}  // namespace

void LineSplitter::Free::operator()(char* memory) const { std::free(memory); }

std::span<char> LineSplitter::space(std::size_t size) {
  lines_.clear();
  if (begin_ == end_ && capacity_ > kKeptCapacity) {
    buffer_.reset();
    capacity_ = 0;
    begin_ = end_ = scanned_ = 0;
  }
  if (capacity_ - end_ < size && begin_ > 0) {
    std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
    scanned_ -= begin_;
    end_ -= begin_;
    begin_ = 0;
  }
  if (capacity_ - end_ < size) {
    const std::size_t wanted = std::max(2 * capacity_, end_ + size);
    // realloc moves pages instead of copying them, which halves the peak for a long line.
    char* grown = static_cast<char*>(std::realloc(buffer_.get(), wanted));
    if (!grown) throw std::bad_alloc();
    static_cast<void>(buffer_.release());
    buffer_.reset(grown);
    capacity_ = wanted;
  }
  return {buffer_.get() + end_, capacity_ - end_};
}

std::span<const std::string_view> LineSplitter::advance(std::size_t size) {
  end_ += size;
  const char* data = buffer_.get();
  while (const void* found = std::memchr(data + scanned_, '\n', end_ - scanned_)) {
    const auto newline = static_cast<std::size_t>(static_cast<const char*>(found) - data);
    std::size_t length = newline - begin_;
    if (length > 0 && data[newline - 1] == '\r') --length;
    lines_.emplace_back(data + begin_, length);
    begin_ = scanned_ = newline + 1;
  }
  scanned_ = end_;
  if (end_ - begin_ >= maxLine_) cutOverlongLine();
  return lines_;
}

void LineSplitter::cutOverlongLine() {
  // Not inside a UTF-8 sequence, nor between the two halves of a line end.
  std::size_t cut = end_;
  for (int back = 0; back < 3 && isContinuation(buffer_.get()[cut - 1]); ++back) --cut;
  const auto last = static_cast<unsigned char>(buffer_.get()[cut - 1]);
  if (last >= 0xC0 || last == '\r') {
    --cut;
  } else {
    cut = end_;  // no sequence ends here, or one with stray bytes behind it
  }
  lines_.emplace_back(buffer_.get() + begin_, cut - begin_);
  begin_ = cut;
}

LineReader::LineReader(UniqueFd source, OnLines onLines)
    : source_(std::move(source)), onLines_(std::move(onLines)), wakeUp_(Pipe::make()) {
  setNonBlocking(source_.get());
}

LineReader::~LineReader() {
  abandon();
  if (thread_.joinable()) thread_.join();
}

void LineReader::feed(UniqueFd sink, std::string text) {
  setNonBlocking(sink.get());
  sink_ = std::move(sink);
  input_ = std::move(text);
}

void LineReader::start() {
  thread_ = startThread([this] { run(); });
}

void LineReader::abandon() {
  abandoned_ = true;
  const char wake = 0;
  // Cannot fail but for a full pipe, and then the thread has been woken already.
  static_cast<void>(!::write(wakeUp_.writeEnd.get(), &wake, 1));
}

void LineReader::run() {
  while (!abandoned_ && source_) {
    // At every turn: a child whose output never pauses gets its input all the same.
    if (sink_) writeSome();
    if (!readSome() && source_) waitForWork();
  }
  if (const auto rest = splitter_.rest(); !rest.empty()) onLines_(std::span(&rest, 1));
  source_.reset();
  done_.set();
  // A child that has closed its output may still read its input.
  while (!abandoned_ && sink_) {
    waitForWork();
    writeSome();
  }
  sink_.reset();
}

/// Blocks until there is something to read or room to write, or the thread shall stop.
void LineReader::waitForWork() {
  pollfd polled[3] = {
      {wakeUp_.readEnd.get(), POLLIN, 0}, {source_.get(), POLLIN, 0}, {sink_.get(), POLLOUT, 0}};
  // Without memory for the wait there is nothing to go on with.
  if (::poll(polled, sink_ ? 3 : 2, -1) < 0 && errno != EINTR) abandoned_ = true;
}

/// One read. True when more may be there at once; false when the caller must wait, or, with the
/// source closed, at the end.
bool LineReader::readSome() {
  const auto room = splitter_.space(kReadSize);
  const ssize_t size = ::read(source_.get(), room.data(), room.size());
  if (size > 0) {
    const auto lines = splitter_.advance(static_cast<std::size_t>(size));
    if (!lines.empty()) onLines_(lines);
    return true;
  }
  if (size < 0 && errno == EINTR) return true;
  if (size == 0 || errno != EAGAIN) source_.reset();
  return false;
}

void LineReader::writeSome() {
  const WriteOutcome outcome = writeAll(sink_.get(), std::string_view(input_).substr(written_));
  written_ += outcome.written;
  if (outcome.error == EAGAIN) return;
  if (outcome.error != 0 && outcome.error != EPIPE) {
    // Open still: who reads the other end must not take a part for the whole.
    unfed_ = std::move(sink_);
    feedError_ = outcome.error;
  }
  sink_.reset();
  std::string().swap(input_);  // an assignment would keep its memory
}

}  // namespace verdo
