#include "VerdoDriverCore/System/Pipe.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace verdo {

Pipe Pipe::make() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe2");
  }
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

}  // namespace verdo
