#pragma once

#include <spawn.h>

namespace verdo::Spawn {

/// Arranges that the child inherits no descriptor beyond 0 to 2. Adds to `flags` what must be set
/// on the attributes. Returns an errno, 0 for success.
int inheritOnlyStandardDescriptors(posix_spawn_file_actions_t& actions, short& flags);

}  // namespace verdo::Spawn
