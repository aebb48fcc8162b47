#pragma once

#include <optional>
#include <string>
#include <vector>

/// Finds the browser tool that runs browser jobs.
namespace verdo::EgoLocator {

/// The command that the driver runs for a browser job.
inline constexpr const char* kCommand = "ego-browser nodejs";

/// Where its installers put it, searched before PATH: an app started from the desktop has a PATH
/// without them.
std::vector<std::string> extraPathDirs();

/// The path of the tool; absent when it is not installed.
std::optional<std::string> path();

}  // namespace verdo::EgoLocator
