#include "VerdoDriverCore/System/Pipe.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace verdo {

// The system has no pipe2(2). Our own children inherit nothing that is not named for them
// (POSIX_SPAWN_CLOEXEC_DEFAULT); one that a library forks between the two steps would.
Pipe Pipe::make() {
  int ends[2];
  if (::pipe(ends) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  Pipe pipe{UniqueFd(ends[0]), UniqueFd(ends[1])};
  for (const int end : ends) {
    if (::fcntl(end, F_SETFD, FD_CLOEXEC) != 0) {
      throw std::system_error(errno, std::generic_category(), "fcntl(FD_CLOEXEC)");
    }
  }
  return pipe;
}

}  // namespace verdo
