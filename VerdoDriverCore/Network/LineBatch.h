#pragma once

#include "VerdoDriverCore/System/ByteBuffer.h"

#include <cstddef>
#include <string_view>
#include <vector>

namespace verdo {

/// The body of a lines post under construction: {"lines": ["…", …]}. Each line is written as JSON
/// the moment it comes, so that nothing is kept twice. Moves, does not copy.
class LineBatch {
 public:
  LineBatch() : LineBatch(ByteBuffer()) {}
  /// Builds in the memory of `buffer`, whose content is dropped.
  explicit LineBatch(ByteBuffer buffer);

  /// Adds a line; bytes that are not UTF-8 become U+FFFD.
  void add(std::string_view line);
  /// Takes the last line back. `size` is what bytes() was before it was added.
  void truncate(std::size_t size);

  bool empty() const { return empty_; }
  /// Length of the finished body.
  std::size_t bytes() const;
  /// The finished body. The batch holds nothing afterwards.
  ByteBuffer finish() &&;

  /// The lines of a finished body in batches of at most `maxBytes` each. A longer line is a batch
  /// of its own, or, with `cutLines`, becomes several lines, cut between characters.
  static std::vector<LineBatch> split(std::string_view body, std::size_t maxBytes, bool cutLines);

 private:
  /// Adds a line that is JSON already, without its quotes.
  void addEscaped(std::string_view text);

  ByteBuffer text_;
  bool empty_ = true;
};

}  // namespace verdo
