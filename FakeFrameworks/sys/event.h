#pragma once

// kqueue, over epoll: see Bsd.cpp.

#include <cstdint>

#include <time.h>

struct kevent {
  std::uintptr_t ident;
  std::int16_t filter;
  std::uint16_t flags;
  std::uint32_t fflags;
  std::intptr_t data;
  void* udata;
};

enum : std::int16_t { EVFILT_READ = -1, EVFILT_WRITE = -2, EVFILT_USER = -10 };
enum : std::uint16_t { EV_ADD = 0x0001, EV_DELETE = 0x0002, EV_CLEAR = 0x0020, EV_EOF = 0x8000 };
enum : std::uint32_t { NOTE_TRIGGER = 0x01000000 };

inline void EV_SET(struct kevent* event, std::uintptr_t ident, std::int16_t filter,
                   std::uint16_t flags, std::uint32_t fflags, std::intptr_t data, void* udata) {
  *event = {ident, filter, flags, fflags, data, udata};
}

extern "C" {
int kqueue();
int kevent(int queue, const struct kevent* changes, int changeCount, struct kevent* events,
           int eventCount, const timespec* timeout);
}
