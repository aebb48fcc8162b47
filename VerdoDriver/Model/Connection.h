#pragma once

#include "VerdoDriver/Model/DriverState.h"

#include <string>
#include <vector>

namespace verdo {

/// How the driver stands, in the six words that the tray icon can show.
enum class Connection { notSetUp, connecting, online, busy, offline, stopped };

inline constexpr Connection kConnections[] = {Connection::notSetUp, Connection::connecting,
                                              Connection::online,   Connection::busy,
                                              Connection::offline,  Connection::stopped};

/// `isConfigured`: there is a server URL and a token. A launch that waits for the keyring is no
/// run, and shows as offline.
Connection connectionOf(bool isConfigured, const DriverState& state, bool isBusy);

/// For people: "online · busy".
const char* wordOf(Connection connection);
/// For programs, such as those that read --status: "notSetUp".
const char* nameOf(Connection connection);

/// The lanes without their first piece, which names the user: "a:b:c" shows as "b:c".
std::string shownLanes(const std::vector<std::string>& lanes);

/// What the tray icon says when it is pointed at.
std::string tooltipOf(Connection connection, const std::vector<std::string>& busyLanes,
                      bool updateAvailable);

}  // namespace verdo
