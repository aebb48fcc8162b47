#include "VerdoDriverCLI/ServiceManager.h"
#include "VerdoDriverCore/System/UniqueFd.h"

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace verdo::cli {
namespace {

/// For a service manager that has no room for another message.
constexpr timeval kSendLimit{.tv_sec = 1, .tv_usec = 0};

std::optional<std::int64_t> numberIn(const char* variable) {
  const char* const text = std::getenv(variable);
  std::int64_t number = 0;
  const char* const end = text ? text + std::strlen(text) : nullptr;
  if (!text || std::from_chars(text, end, number).ptr != end) return std::nullopt;
  return number;
}

}  // namespace

// systemd's library would wait without end for a service manager that is stopped or does not
// listen.
void tellServiceManager(const std::string& assignments) {
  const char* const given = std::getenv("NOTIFY_SOCKET");
  const std::string_view path = given ? given : "";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const bool isAbstract = path.starts_with('@');
  if ((!isAbstract && !path.starts_with('/')) || path.size() >= sizeof address.sun_path) return;
  path.copy(address.sun_path, path.size());
  if (isAbstract) address.sun_path[0] = '\0';
  // The name of an abstract socket ends with its length, that of a file with a zero.
  const auto size = offsetof(sockaddr_un, sun_path) + path.size() + (isAbstract ? 0 : 1);

  const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket) return;
  ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &kSendLimit, sizeof kSendLimit);
  static_cast<void>(::sendto(socket.get(), assignments.data(), assignments.size(), MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr*>(&address),
                             static_cast<socklen_t>(size)));
}

std::optional<std::chrono::microseconds> watchdogInterval() {
  const auto microseconds = numberIn("WATCHDOG_USEC");
  const auto pid = numberIn("WATCHDOG_PID");  // of the process that is watched
  if (!microseconds || *microseconds <= 0 || (pid && *pid != ::getpid())) return std::nullopt;
  return std::chrono::microseconds(*microseconds);
}

}  // namespace verdo::cli
