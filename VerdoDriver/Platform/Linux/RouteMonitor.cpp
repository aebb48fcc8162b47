#include "VerdoDriver/Platform/Linux/RouteMonitor.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/MainThread.h"

#include <QPointer>
#include <QSocketNotifier>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>

#include <arpa/inet.h>
#include <fmt/format.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace verdo {
namespace {

/// Changes come in bursts, of which only what they lead to matters.
constexpr std::chrono::milliseconds kSettleTime{200};

/// Everything that can change a path. A link that goes down takes its routes along without a word
/// about them, and new rules choose among tables.
constexpr unsigned kGroups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR |
                             RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE | RTMGRP_IPV4_RULE |
                             (1u << (RTNLGRP_IPV6_RULE - 1));

/// The address from which this computer would send to that one, as bytes; empty when there is no
/// way. Connecting a datagram socket sends nothing.
template <typename Address>
std::string sourceTowards(Address target) {
  auto* const name = reinterpret_cast<sockaddr*>(&target);
  const UniqueFd socket(::socket(name->sa_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  socklen_t size = sizeof target;
  if (!socket || ::connect(socket.get(), name, size) != 0) return "";
  if (::getsockname(socket.get(), name, &size) != 0) return "";
  if constexpr (requires { target.sin_addr; }) {
    return {reinterpret_cast<const char*>(&target.sin_addr), sizeof target.sin_addr};
  } else {
    return {reinterpret_cast<const char*>(&target.sin6_addr), sizeof target.sin6_addr};
  }
}

/// Tells paths apart; empty when there is none. The targets are addresses for examples, which lie
/// in no network that a computer could be in.
std::string currentPath() {
  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  v4.sin_port = htons(443);
  ::inet_pton(AF_INET, "203.0.113.1", &v4.sin_addr);
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  v6.sin6_port = htons(443);
  ::inet_pton(AF_INET6, "2001:db8::1", &v6.sin6_addr);
  const std::string first = sourceTowards(v4);
  const std::string second = sourceTowards(v6);
  return first.empty() && second.empty() ? "" : first + '/' + second;
}

}  // namespace

RouteMonitor::RouteMonitor() {
  settled_.setSingleShot(true);
  settled_.setInterval(kSettleTime);
  connect(&settled_, &QTimer::timeout, this, &RouteMonitor::look);
}

RouteMonitor::~RouteMonitor() = default;

void RouteMonitor::start() {
  if (path_ || settled_.isActive()) return;
  if (listen()) {
    settled_.start(0);
    return;
  }
  AppLog::lifecycle.error(fmt::format("[PathMonitor] routes cannot be watched: {}",
                                      std::generic_category().message(errno)));
  path_.emplace();
  MainThread::post([self = QPointer(this)] {
    if (self) Q_EMIT self->reported(true);
  });
}

bool RouteMonitor::listen() {
  socket_ = UniqueFd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = kGroups;
  if (!socket_ ||
      ::bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    return false;
  }
  notifier_ = std::make_unique<QSocketNotifier>(socket_.get(), QSocketNotifier::Read);
  connect(notifier_.get(), &QSocketNotifier::activated, this, &RouteMonitor::drain);
  return true;
}

void RouteMonitor::drain() {
  // What the messages say does not matter, nor that some were lost. A router's flood of them is
  // left to later turns of the event loop.
  char ignored[8192];
  for (int i = 0; i < 64; ++i) {
    const auto size = ::recv(socket_.get(), ignored, sizeof ignored, 0);
    if (size < 0 && errno != ENOBUFS && errno != EINTR) break;
  }
  if (!settled_.isActive()) settled_.start(kSettleTime);
}

void RouteMonitor::look() {
  auto path = currentPath();
  if (path_ == path) return;
  path_ = std::move(path);
  Q_EMIT reported(!path_->empty());
}

}  // namespace verdo
