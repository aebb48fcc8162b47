#include "VerdoDriverCore/Jobs/StagingDirectory.h"

#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/System/Files.h"
#include "VerdoDriverCore/Values/PyError.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>
#include <thread>

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

namespace verdo {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPrefix = "verdo-";

bool isStaging(const fs::directory_entry& entry) {
  return entry.path().filename().string().starts_with(kPrefix);
}

/// Held while a directory is made and locked: between those two steps nobody else may look whether
/// it has an owner. Waits for `patience` at most: a process that is stopped, or hangs in
/// the disk, may hold it for ever.
UniqueFd lockCache(const std::string& cache, std::chrono::milliseconds patience) {
  constexpr std::chrono::milliseconds kLook{20};
  const std::string path = cache + "/.lock";
  UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!file) failWithErrno(path);
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK || std::chrono::steady_clock::now() >= deadline) failWithErrno(path);
    std::this_thread::sleep_for(kLook);
  }
  return file;
}

UniqueFd openDirectory(const std::string& path) {
  return UniqueFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
}

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

/// Removes a directory's files through a descriptor of it, since there may be none left for another
/// look. Subdirectories stay. Gives the descriptor back, in another form.
std::unique_ptr<DIR, CloseDirectory> removeFilesIn(UniqueFd directory) {
  std::unique_ptr<DIR, CloseDirectory> entries(directory ? ::fdopendir(directory.get()) : nullptr);
  if (!entries) return entries;
  const int fd = directory.release();
  while (const dirent* entry = ::readdir(entries.get())) {
    static_cast<void>(::unlinkat(fd, &entry->d_name[0], 0));  // refused for directories
  }
  return entries;
}

/// Makes a directory whose owner is gone ours, so that nobody else touches it. Empty when it has an
/// owner, or when another process makes or takes one just now.
UniqueFd takeAbandoned(const std::string& cache, const std::string& path) try {
  const UniqueFd cacheLock = lockCache(cache, std::chrono::milliseconds::zero());
  UniqueFd directory = openDirectory(path);
  if (directory && ::flock(directory.get(), LOCK_EX | LOCK_NB) != 0) directory.reset();
  return directory;
} catch (const PyError&) {
  return {};
}

}  // namespace

std::string StagingDirectory::defaultCache() {
  return DriverConstants::expandTilde("~/.cache/verdo");
}

StagingDirectory::StagingDirectory(const std::string& cache, std::chrono::milliseconds patience) {
  if (const int error = makePrivateDirectory(cache)) {
    throw PyError("OSError", pyErrnoText(error, cache));
  }
  const UniqueFd cacheLock = lockCache(cache, patience);
  std::string path = cache + "/" + kPrefix + "XXXXXX";
  if (!::mkdtemp(path.data())) {
    throw PyError("OSError",
                  fmt::format("mkdtemp failed: {}", std::generic_category().message(errno)));
  }
  path_ = std::move(path);
  lock_ = openDirectory(path_);
  if (!lock_) {
    // Unlocked, it would be another driver's to remove.
    const int error = errno;
    ::rmdir(path_.c_str());
    throw PyError("OSError", pyErrnoText(error, path_));
  }
  // A file system without locks costs the clean-up after a crash, not the job.
  static_cast<void>(::flock(lock_.get(), LOCK_EX | LOCK_NB));
}

StagingDirectory::~StagingDirectory() {
  const auto locked = removeFilesIn(std::move(lock_));
  if (::rmdir(path_.c_str()) == 0) return;
  std::error_code ignored;  // nobody is left to tell; the next start tries again
  fs::remove_all(path_, ignored);
}

bool StagingDirectory::hasAny(const std::string& cache) {
  std::error_code missing;
  const fs::directory_iterator entries(cache, missing);
  return std::any_of(begin(entries), end(entries), isStaging);
}

void StagingDirectory::removeAbandoned(const std::string& cache) try {
  std::error_code missing;
  if (!fs::is_directory(cache, missing)) return;
  for (const auto& entry : fs::directory_iterator(cache)) {
    if (!isStaging(entry)) continue;
    const UniqueFd directory = takeAbandoned(cache, entry.path());
    if (!directory) continue;
    std::error_code ignored;
    fs::remove_all(entry.path(), ignored);  // may take long: the cache is free meanwhile
  }
} catch (const std::exception&) {
  // Tidying up is a courtesy: it must not keep a driver from starting.
}

}  // namespace verdo
