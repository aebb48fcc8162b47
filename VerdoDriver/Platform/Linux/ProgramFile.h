#pragma once

#include <optional>
#include <string>
#include <utility>

#include <sys/types.h>

namespace verdo {

/// The file that a program was started from, and whether it is still that one: an upgrade of its
/// package puts another file in its place, under a program that goes on running. A plain value.
class ProgramFile {
 public:
  /// To be made as the program starts, while the file is its own.
  explicit ProgramFile(std::string path);

  /// Another program, which may be run, lies at the path. One that was removed is not replaced.
  bool isReplaced() const;

 private:
  using Identity = std::pair<dev_t, ino_t>;
  static std::optional<Identity> programAt(const std::string& path);

  std::string path_;
  std::optional<Identity> own_;  ///< which no other file has while the program runs from it
};

}  // namespace verdo
