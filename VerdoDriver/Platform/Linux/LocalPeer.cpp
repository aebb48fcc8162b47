#include "VerdoDriver/Platform/LocalPeer.h"

#include <sys/socket.h>
#include <unistd.h>

namespace verdo::LocalPeer {

bool isOwn(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
         peer.uid == ::geteuid();
}

void prepare(int) {}

ssize_t send(int socket, std::string_view bytes) {
  return ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

}  // namespace verdo::LocalPeer
