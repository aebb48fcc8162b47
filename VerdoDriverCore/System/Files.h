#pragma once

#include "VerdoDriverCore/System/UniqueFd.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace verdo {

/// How far a write came.
struct WriteOutcome {
  std::size_t written = 0;  ///< bytes that are out
  int error = 0;            ///< 0 when all are, else the errno that stopped it
};

/// Writes the bytes to a descriptor, through interruptions by signals and partial writes. Stops at
/// the first error; a non-blocking descriptor without room stops it with EAGAIN. Throws nothing.
[[nodiscard]] WriteOutcome writeAll(int fd, std::string_view bytes) noexcept;

/// Closes a file that was written. Gives 0, or the errno of what went wrong: some file systems tell
/// only now that earlier writes came to nothing. The descriptor is gone in any case.
[[nodiscard]] int closeWritten(UniqueFd file) noexcept;

/// Makes a directory, with those above it, and gives its mode as 0700 whoever made it. Gives 0, or
/// the errno of what went wrong.
int makePrivateDirectory(const std::string& path);

}  // namespace verdo
