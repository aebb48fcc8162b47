#include "failures/Plan.h"

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>
#include <netdb.h>

namespace verdo::failures {
namespace {

constexpr int kHour = 3600;  // seconds

}  // namespace

std::string Row::title() const {
  return fmt::format("{} {}{}", kCallNames[static_cast<std::size_t>(call)], name,
                     lasting ? " …" : "");
}

const std::vector<Row>& driverRows() {
  static const std::vector<Row> rows = {
      {Call::pipe, EMFILE, "EMFILE"},
      {Call::pipe, EMFILE, "EMFILE", true},
      {Call::spawn, EAGAIN, "EAGAIN"},
      {Call::spawn, ENOMEM, "ENOMEM", true},
      {Call::thread, EAGAIN, "EAGAIN"},
      {Call::thread, EAGAIN, "EAGAIN", true},
      {Call::epoll, ENOMEM, "ENOMEM"},
      {Call::epoll, ENOSPC, "ENOSPC", true},
      {Call::epollWait, EINTR, "EINTR"},
      {Call::open, EMFILE, "EMFILE"},
      {Call::open, EACCES, "EACCES", true},
      {Call::create, ENOSPC, "ENOSPC"},
      {Call::create, EROFS, "EROFS", true},
      {Call::read, EIO, "EIO"},
      {Call::write, ENOSPC, "ENOSPC"},
      {Call::write, EIO, "EIO", true},
      {Call::writePipe, ENOMEM, "ENOMEM"},
      {Call::writeLog, ENOSPC, "ENOSPC", true},
      {Call::close, EIO, "EIO"},
      {Call::sync, EIO, "EIO"},
      {Call::rename, ENOSPC, "ENOSPC"},
      {Call::makeDir, ENOSPC, "ENOSPC"},
      {Call::makeDir, EACCES, "EACCES", true},
      {Call::truncate, EIO, "EIO"},
      {Call::lock, ENOLCK, "ENOLCK"},
      {Call::lock, ENOLCK, "ENOLCK", true},
      {Call::map, ENOMEM, "ENOMEM"},
      {Call::memory, ENOMEM, "ENOMEM"},
      {Call::resolve, EAI_AGAIN, "EAI_AGAIN"},
      {Call::resolve, EAI_NONAME, "EAI_NONAME", true},
      {Call::socket, EMFILE, "EMFILE"},
      {Call::socket, EMFILE, "EMFILE", true},
      {Call::connect, ENETUNREACH, "ENETUNREACH"},
      {Call::connect, ECONNREFUSED, "ECONNREFUSED", true},
      {Call::transfer, ECONNRESET, "ECONNRESET"},
      {Call::transfer, ECONNRESET, "ECONNRESET", true},
      {Call::wait, EINTR, "EINTR"},
      {Call::clock, -kHour, "an hour back"},
      {Call::clock, kHour, "an hour on"},
      {Call::monotonic, kHour, "an hour on"},
  };
  return rows;
}

const std::vector<Row>& appRows() {
  static const std::vector<Row> rows = {
      {Call::pipe, EMFILE, "EMFILE"},
      {Call::spawn, EAGAIN, "EAGAIN"},
      {Call::thread, EAGAIN, "EAGAIN"},
      {Call::create, ENOSPC, "ENOSPC"},
      {Call::create, EROFS, "EROFS", true},
      {Call::read, EIO, "EIO"},
      {Call::write, ENOSPC, "ENOSPC"},
      {Call::write, EIO, "EIO", true},
      {Call::close, EIO, "EIO"},
      {Call::sync, EIO, "EIO"},
      {Call::rename, ENOSPC, "ENOSPC"},
      {Call::rename, EACCES, "EACCES", true},
      {Call::makeDir, ENOSPC, "ENOSPC"},
      {Call::truncate, EIO, "EIO"},
      {Call::lock, ENOLCK, "ENOLCK"},
      {Call::lock, ENOLCK, "ENOLCK", true},
      {Call::socket, EMFILE, "EMFILE"},
  };
  return rows;
}

std::vector<Attempt> attemptsOf(const Row& row, std::uint64_t calls, std::uint64_t most) {
  std::vector<Attempt> attempts;
  const std::uint64_t count = std::min(calls, most);
  for (std::uint64_t i = 0; i < count; ++i) attempts.push_back({row, 1 + i * calls / count});
  return attempts;
}

}  // namespace verdo::failures
