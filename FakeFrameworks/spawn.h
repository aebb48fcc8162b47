#pragma once

#include_next <spawn.h>

enum : short { POSIX_SPAWN_CLOEXEC_DEFAULT = 0x4000 };
