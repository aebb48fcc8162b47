#include "VerdoDriver/Platform/Linux/FileSecretStore.h"

#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/Masked.h"
#include "VerdoDriverCore/System/Files.h"
#include "VerdoDriverCore/System/UniqueFd.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace verdo {
namespace {

constexpr std::size_t kMaxSize = 1u << 20;  // bytes; no secret comes near
constexpr mode_t kOthers = 077;

SecretError refusal(const std::string& path, const std::string& why) {
  return {SecretError::Kind::failed, 0, fmt::format("{} {}", path, why)};
}

SecretError errnoError(const std::string& doing, const std::string& path) {
  const int code = errno;
  return {SecretError::Kind::failed, code,
          fmt::format("{} {} failed: {}", doing, path, std::generic_category().message(code))};
}

/// What is wrong with a file that a secret would be read from; empty when nothing is.
std::string flawOf(const struct stat& status, const std::string& path) {
  if (!S_ISREG(status.st_mode)) return "is not a regular file — remove it and connect again.";
  if (status.st_uid != ::geteuid()) return "belongs to another user — remove it and connect again.";
  if ((status.st_mode & kOthers) != 0) {
    return fmt::format("can be read by others — fix it first:  chmod 600 {}", path);
  }
  return "";
}

// The functions below throw SecretError.

std::optional<std::string> readSecret(const std::string& path) {
  // Opened first and examined through the descriptor, so that what was checked is what is read.
  // Non-blocking, should someone have put a FIFO there.
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) {
    if (errno == ENOENT) return std::nullopt;
    if (errno == ELOOP) throw refusal(path, "is a symbolic link — remove it and connect again.");
    throw errnoError("Reading", path);
  }
  struct stat status{};
  if (::fstat(file.get(), &status) != 0) throw errnoError("Reading", path);
  if (const auto flaw = flawOf(status, path); !flaw.empty()) throw refusal(path, flaw);

  std::string value;
  std::string chunk(4096, '\0');  // not on the stack, which nobody wipes
  for (;;) {
    const ssize_t size = ::read(file.get(), chunk.data(), chunk.size());
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) throw errnoError("Reading", path);
    if (size == 0) break;
    value.append(chunk, 0, static_cast<std::size_t>(size));
    if (value.size() > kMaxSize) throw refusal(path, "is too large for a secret.");
  }
  if (repairUtf8(value) != value) return std::nullopt;
  return value;
}

/// Makes the directory if need be, for the user alone; one that is wider open is narrowed.
void prepareDirectory(const std::string& directory) {
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(directory).parent_path(), error);
  if (::mkdir(directory.c_str(), 0700) == 0) return;
  if (errno != EEXIST) throw errnoError("Making", directory);
  const UniqueFd opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status{};
  if (!opened || ::fstat(opened.get(), &status) != 0) throw errnoError("Opening", directory);
  if (status.st_uid != ::geteuid()) throw refusal(directory, "belongs to another user.");
  if ((status.st_mode & kOthers) != 0 && ::fchmod(opened.get(), 0700) != 0) {
    throw errnoError("Protecting", directory);
  }
}

void writeDurably(int file, const std::string& value, const std::string& path) {
  if (const int reason = writeAll(file, value).error; reason != 0) {
    errno = reason;
    throw errnoError("Writing", path);
  }
  if (::fsync(file) != 0) throw errnoError("Writing", path);
}

/// Makes a finished rename or removal survive a power failure. Where that fails, the step itself
/// has still happened, so it is no error.
void syncDirectory(const std::string& directory) {
  const UniqueFd opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (opened) ::fsync(opened.get());
}

/// Always the same name: what a crash left behind goes with the next write, or removal.
std::string temporaryOf(const std::string& directory, const std::string& name) {
  return directory + "/." + name + ".new";
}

/// False when there was none.
bool removeFile(const std::string& path) {
  if (::unlink(path.c_str()) == 0) return true;
  if (errno != ENOENT) throw errnoError("Removing", path);
  return false;
}

void replaceFile(const std::string& directory, const std::string& name, const std::string& value) {
  const std::string path = directory + "/" + name;
  const std::string temporary = temporaryOf(directory, name);
  ::unlink(temporary.c_str());
  const UniqueFd file(
      ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file) throw errnoError("Writing", temporary);
  try {
    writeDurably(file.get(), value, temporary);
    if (::rename(temporary.c_str(), path.c_str()) != 0) throw errnoError("Replacing", path);
  } catch (const SecretError&) {
    ::unlink(temporary.c_str());
    throw;
  }
  syncDirectory(directory);
}

tl::unexpected<SecretError> logged(const char* operation, SecretAccount account,
                                   const SecretError& error) {
  AppLog::keychain.error(
      fmt::format("[FileSecretStore] {} {} failed: {}", operation, nameOf(account), error.status));
  return tl::unexpected(error);
}

}  // namespace

FileSecretStore::FileSecretStore(std::string directory) : directory_(std::move(directory)) {}

SecretStore::Result<std::optional<std::string>> FileSecretStore::read(SecretAccount account) {
  try {
    return readSecret(directory_ + "/" + nameOf(account));
  } catch (const SecretError& error) {
    return logged("read", account, error);
  }
}

SecretStore::Result<void> FileSecretStore::write(const std::string& value, SecretAccount account) {
  try {
    MutexLock lock(writing_);
    prepareDirectory(directory_);
    replaceFile(directory_, nameOf(account), value);
  } catch (const SecretError& error) {
    return logged("write", account, error);
  }
  AppLog::keychain.info(
      fmt::format("[FileSecretStore] stored {} ({})", nameOf(account), masked(value)));
  return {};
}

SecretStore::Result<void> FileSecretStore::remove(SecretAccount account) {
  try {
    MutexLock lock(writing_);
    // What a crash in the middle of a write has left is a secret, too.
    const bool hadTemporary = removeFile(temporaryOf(directory_, nameOf(account)));
    if (!removeFile(directory_ + "/" + nameOf(account)) && !hadTemporary) return {};
    syncDirectory(directory_);
  } catch (const SecretError& error) {
    return logged("delete", account, error);
  }
  AppLog::keychain.info(fmt::format("[FileSecretStore] removed {}", nameOf(account)));
  return {};
}

void FileSecretStore::removeDirectory() {
  MutexLock lock(writing_);
  const std::string parent = std::filesystem::path(directory_).parent_path();
  if (::rmdir(directory_.c_str()) == 0) ::rmdir(parent.c_str());
}

}  // namespace verdo
