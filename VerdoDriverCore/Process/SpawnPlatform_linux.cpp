#include "VerdoDriverCore/Process/SpawnPlatform.h"

namespace verdo::Spawn {

int inheritOnlyStandardDescriptors(posix_spawn_file_actions_t& actions, short&) {
  return ::posix_spawn_file_actions_addclosefrom_np(&actions, 3);
}

}  // namespace verdo::Spawn
