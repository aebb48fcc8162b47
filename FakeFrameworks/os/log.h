#pragma once

// The part of the unified log that the adapters use.

#include <cstdint>

using os_log_t = struct FakeLog*;
using os_log_type_t = std::uint8_t;
enum : os_log_type_t {
  OS_LOG_TYPE_DEFAULT = 0x00,
  OS_LOG_TYPE_INFO = 0x01,
  OS_LOG_TYPE_DEBUG = 0x02,
  OS_LOG_TYPE_ERROR = 0x10,
  OS_LOG_TYPE_FAULT = 0x11,
};

extern "C" {
os_log_t os_log_create(const char* subsystem, const char* category);
void fakeLog(os_log_t log, os_log_type_t type, const char* format, ...);
}
// A macro there, too.
#define os_log_with_type(log, type, format, ...) fakeLog(log, type, format, __VA_ARGS__)
