#pragma once

#include "VerdoDriver/Model/SecretStore.h"

#include <string>

namespace verdo {

/// Keeps secrets where the system has no keyring: a file for each account, readable by the user
/// alone (mode 0600) in a directory of their own (0700).
///
/// Any thread may call. Only one process at a time may write. The directory is made when it is
/// first needed.
class FileSecretStore : public SecretStore {
 public:
  explicit FileSecretStore(std::string directory);

  /// Fails on a file that others can read, that belongs to somebody else, or that is no regular
  /// file. A value that is not UTF-8 counts as absent.
  Result<std::optional<std::string>> read(SecretAccount account) override;
  /// Replaces the file in one step: should it fail, the old value is still there.
  Result<void> write(const std::string& value, SecretAccount account) override;
  /// Removes what a crash in the middle of a write has left, too.
  Result<void> remove(SecretAccount account) override;
  /// Removes the directory, and the one that it was made in, where nothing else lies there.
  void removeDirectory();

 private:
  const std::string directory_;
  Mutex writing_;  ///< no two threads touch the same temporary file
};

}  // namespace verdo
