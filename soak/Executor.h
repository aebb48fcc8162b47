#pragma once

#include <string>

namespace verdo::soak {

/// This program as the driver's browser executor: reads a script from standard input and does what
/// the plan in it says, or lists and closes task spaces, which are files of `directory`/spaces.
/// Each job that is run adds the line "NUMBER PID" to `directory`/journal.
int execute(const std::string& directory);

}  // namespace verdo::soak
