#pragma once

#include <optional>
#include <string>
#include <vector>

/// Finds the browser tool that runs browser jobs.
namespace verdo::EgoLocator {

/// Where its installers put it, searched before PATH: an app started from the desktop has a PATH
/// without them.
std::vector<std::string> extraPathDirs();

/// The command that the driver runs for a browser job: of the user's own browser where its tool is
/// installed, else of ours. Looks at the disk; ask again for each run.
std::string command();

/// The path of the program of that command; absent when neither is installed.
std::optional<std::string> path();

}  // namespace verdo::EgoLocator
