#include "VerdoDriverCore/System/Files.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <sys/stat.h>
#include <unistd.h>

namespace verdo {

WriteOutcome writeAll(int fd, std::string_view bytes) noexcept {
  WriteOutcome outcome;
  while (outcome.written < bytes.size()) {
    const ssize_t size =
        ::write(fd, bytes.data() + outcome.written, bytes.size() - outcome.written);
    if (size > 0) {
      outcome.written += static_cast<std::size_t>(size);
    } else if (size == 0) {
      outcome.error = EIO;  // POSIX leaves it open for what is no regular file; never try for ever
      return outcome;
    } else if (errno != EINTR) {
      outcome.error = errno;
      return outcome;
    }
  }
  return outcome;
}

int closeWritten(UniqueFd file) noexcept {
  // An interruption (EINTR) counts as well: what became of the writes is unknown.
  return ::close(file.release()) == 0 ? 0 : errno;
}

int makePrivateDirectory(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (error) return error.value();
  return ::chmod(path.c_str(), 0700) == 0 ? 0 : errno;
}

}  // namespace verdo
