#pragma once

#include "VerdoDriverCLI/Options.h"
#include "VerdoDriverCore/Contract/DriverConfig.h"
#include "VerdoDriverCore/Contract/Secrets.h"
#include "VerdoDriverCore/Process/Spawn.h"

namespace verdo::cli {

/// The configuration of the run: what the command line leaves open is filled in from the
/// environment (`secrets` is what was taken out of it), then from the env file, then with
/// defaults. An empty value counts as absent, and so does a secret of white space. Throws what
/// EnvFile::read throws, and PyError "ValueError" for a secret with a control character inside.
DriverConfig resolveConfig(Options options, const Environment& environment, const Secrets& secrets);

}  // namespace verdo::cli
