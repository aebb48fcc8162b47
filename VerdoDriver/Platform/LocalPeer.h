#pragma once

#include <string_view>

#include <sys/types.h>

/// What local sockets (AF_UNIX) need that each system calls by another name.
namespace verdo::LocalPeer {

/// The other end of the connected socket belongs to this user. False also when nobody can tell.
bool isOwn(int socket);

/// Makes `socket` fit for send(). To be called once, while the other end is there.
void prepare(int socket);

/// As send(2). Where the other end is gone it fails with EPIPE, and raises no signal.
ssize_t send(int socket, std::string_view bytes);

}  // namespace verdo::LocalPeer
