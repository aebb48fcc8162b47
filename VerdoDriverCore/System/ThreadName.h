#pragma once

#include <string>

namespace verdo {

/// Names the calling thread for debuggers and process listings; systems cut long names.
void setThreadName(const std::string& name);

}  // namespace verdo
