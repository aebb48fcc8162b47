#include "VerdoDriverCore/Process/SpawnPlatform.h"

namespace verdo::Spawn {

int inheritOnlyStandardDescriptors(posix_spawn_file_actions_t&, short& flags) {
  flags |= POSIX_SPAWN_CLOEXEC_DEFAULT;
  return 0;
}

}  // namespace verdo::Spawn
