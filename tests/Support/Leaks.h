#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace verdo::test {

/// The open descriptors of this process, each with what it refers to.
std::vector<std::string> openDescriptors();
/// The names of this process's threads.
std::vector<std::string> threadNames();
/// The living processes, zombies not counted, whose environment began with "HOME=`home`" in it:
/// whatever a driver with that home directory started, wherever it went.
std::vector<pid_t> processesOf(const std::string& home);
/// True when this process has children, zombies included.
bool hasChildren();

/// True as soon as `condition` holds, false when the time ran out first. For what the system tells
/// only when asked: descriptors, processes, memory.
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds timeout = std::chrono::seconds(5));

}  // namespace verdo::test
