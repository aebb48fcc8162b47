#pragma once

#include "VerdoDriverCore/System/UniqueFd.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace verdo {

/// A text file that is only appended to and that moves aside, as "{name}.1", "{name}.2" and so on,
/// before it grows beyond a size. Several processes may append to one file: what was appended in
/// one piece stays in one piece, and they rotate it once. A file or directory that someone deleted
/// or moved is made anew. A process that keeps its turn holds the others up once; they then append
/// without it until it is over. Not thread-safe.
class RotatingFile {
 public:
  /// `maxBytes`: the size that the file keeps to, unless a single piece is larger. `keep`: how many
  /// files that were moved aside stay, at least 1. `patience`: how long another process may keep
  /// its turn. Nothing is touched yet.
  RotatingFile(std::string directory, const std::string& name, std::uint64_t maxBytes, int keep,
               std::chrono::milliseconds patience);

  const std::string& path() const { return path_; }

  /// Appends the piece. Throws std::system_error; then nothing of the piece is in the file, and
  /// the next call starts by opening the file again.
  void append(std::string_view piece);

 private:
  enum class Outcome { appended, rotated, replaced };

  void open();
  Outcome tryAppend(std::string_view piece, bool mayRotate);
  bool isStillThere() const;
  void rotate() const;
  void write(std::string_view piece, std::uint64_t sizeBefore) const;

  const std::string directory_;
  const std::string path_;
  const std::uint64_t maxBytes_;
  const int keep_;
  const std::chrono::milliseconds patience_;
  UniqueFd file_;
  bool isHeldUp_ = false;  ///< the turn was another process's to the end of our patience
};

}  // namespace verdo
