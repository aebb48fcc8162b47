#pragma once

#include "VerdoDriverCore/Contract/DriverConfig.h"
#include "VerdoDriverCore/Doctor/Finding.h"
#include "VerdoDriverCore/Values/JV.h"

#include <string>
#include <vector>

namespace verdo {

/// "ok", "warning", "failed" or "skipped".
const char* nameOf(Finding::Verdict verdict);
/// "✓", "!", "✗" or "–".
const char* signOf(Finding::Verdict verdict);

/// A finding for the terminal: a line with sign, verdict, check and reason, and below it what was
/// met and what to do, where there is any. Ends with a line end; control characters are written
/// out. `color`: the sign is coloured as in the log.
std::string textOf(const Finding& finding, bool color = false);

/// All findings as one object: "healthy", "version", "checks".
JV jsonOf(const std::vector<Finding>& findings);

/// All findings for strangers, as text: without what was met, and with neither secret, nor a path
/// of the user's home, nor any host but the server's in it.
std::string reportOf(const std::vector<Finding>& findings, const DriverConfig& config);

}  // namespace verdo
