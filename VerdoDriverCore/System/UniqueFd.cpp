#include "VerdoDriverCore/System/UniqueFd.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace verdo {

void UniqueFd::reset() {
  // Not retried on EINTR: the descriptor is gone either way.
  if (fd_ >= 0) ::close(std::exchange(fd_, -1));
}

void setNonBlocking(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "fcntl(O_NONBLOCK)");
  }
}

}  // namespace verdo
