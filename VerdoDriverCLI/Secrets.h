#pragma once

namespace verdo::cli {

/// Removes both secrets from this process's environment, their bytes included: no child inherits
/// them and no process listing shows them. Call it before the first thread starts.
void eraseSecretsFromEnvironment();

}  // namespace verdo::cli
