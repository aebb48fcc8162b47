#pragma once

#include_next <sys/socket.h>

enum { SO_NOSIGPIPE = 0x1022 };

extern "C" {
int getpeereid(int socket, uid_t* user, gid_t* group);
// Its options have other numbers than this system's.
int fakeSetSocketOption(int socket, int level, int option, const void* value, socklen_t size);
}
#define setsockopt fakeSetSocketOption
