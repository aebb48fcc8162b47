#include "VerdoDriverCore/Network/SocketOptions.h"

#include <netinet/in.h>  // NOLINT(misc-include-cleaner): IPPROTO_TCP, a macro of itself
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace verdo {
namespace {

constexpr int kKeepAliveIdle = 10;            // seconds
constexpr int kKeepAliveInterval = 2;         // seconds
constexpr int kKeepAliveProbes = 3;           // once the time below is over, one is enough
constexpr int kUnacknowledgedLimit = 15'000;  // milliseconds, of data and of probes

}  // namespace

void detectDeadPath(int socket) {
  // A kernel that lacks one of them notices later; the time-outs of requests hold in any case.
  const auto set = [socket](int level, int option, int value) {
    static_cast<void>(::setsockopt(socket, level, option, &value, sizeof value));
  };
  set(SOL_SOCKET, SO_KEEPALIVE, 1);
  set(IPPROTO_TCP, TCP_KEEPIDLE, kKeepAliveIdle);
  set(IPPROTO_TCP, TCP_KEEPINTVL, kKeepAliveInterval);
  set(IPPROTO_TCP, TCP_KEEPCNT, kKeepAliveProbes);
  set(IPPROTO_TCP, TCP_USER_TIMEOUT, kUnacknowledgedLimit);
}

}  // namespace verdo
