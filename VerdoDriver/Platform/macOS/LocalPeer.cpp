#include "VerdoDriver/Platform/LocalPeer.h"

#include <sys/socket.h>
#include <unistd.h>

namespace verdo::LocalPeer {

bool isOwn(int socket) {
  uid_t user = 0;
  gid_t group = 0;
  return ::getpeereid(socket, &user, &group) == 0 && user == ::geteuid();
}

void prepare(int socket) {
  const int isOn = 1;
  // Fails when the other end is gone already: so will reading, before anything is sent.
  static_cast<void>(::setsockopt(socket, SOL_SOCKET, SO_NOSIGPIPE, &isOn, sizeof isOn));
}

ssize_t send(int socket, std::string_view bytes) {
  return ::send(socket, bytes.data(), bytes.size(), 0);
}

}  // namespace verdo::LocalPeer
