#include "VerdoDriver/App/RotatingFile.h"

#include "VerdoDriverCore/System/Files.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace verdo {
namespace {

using std::chrono::milliseconds;

/// How often in one append others may take the file away before that counts as a failure.
constexpr int kMaxOpenings = 32;

[[noreturn]] void fail(const std::string& operation, const std::string& path, int reason = errno) {
  throw std::system_error(reason, std::generic_category(), operation + " " + path);
}

/// The processes' turn to append. Without it nothing is lost but the order of rotations.
class Turn {
 public:
  Turn(int fd, milliseconds patience) : fd_(fd) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
      // A file system that cannot lock is taken for one that nobody shares.
      if (errno != EWOULDBLOCK && errno != EINTR) return;
      if (std::chrono::steady_clock::now() >= deadline) {
        isOthers_ = true;
        return;
      }
      std::this_thread::sleep_for(milliseconds(1));
    }
  }
  ~Turn() { ::flock(fd_, LOCK_UN); }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

  /// Another process keeps it.
  bool isOthers() const { return isOthers_; }

 private:
  const int fd_;
  bool isOthers_ = false;
};

std::uint64_t sizeOf(int fd, const std::string& path) {
  struct stat status{};
  if (::fstat(fd, &status) != 0) fail("examine", path);
  return static_cast<std::uint64_t>(status.st_size);
}

/// Makes the directory and those above it, for this user only.
void makeDirectories(const std::filesystem::path& directory) {
  if (::mkdir(directory.c_str(), 0700) == 0 || errno == EEXIST) return;
  const auto parent = directory.parent_path();
  if (errno != ENOENT || parent.empty() || parent == directory) {
    fail("make the directory", directory);
  }
  makeDirectories(parent);
  if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
    fail("make the directory", directory);
  }
}

void renameIfThere(const std::string& from, const std::string& to) {
  if (std::rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) fail("rename", from);
}

}  // namespace

RotatingFile::RotatingFile(std::string directory, const std::string& name, std::uint64_t maxBytes,
                           int keep, milliseconds patience)
    : directory_(std::move(directory)),
      path_(directory_ + "/" + name),
      maxBytes_(maxBytes),
      keep_(std::max(keep, 1)),
      patience_(patience) {}

void RotatingFile::append(std::string_view piece) {
  try {
    bool mayRotate = true;
    for (int opening = 0; opening < kMaxOpenings; ++opening) {
      if (!file_) open();
      const Outcome outcome = tryAppend(piece, mayRotate);
      if (outcome == Outcome::appended) return;
      // A second rotation makes room only if other processes have filled the new file already.
      if (outcome == Outcome::rotated && piece.size() > maxBytes_) mayRotate = false;
      file_.reset();
    }
    fail("keep open", path_, EBUSY);
  } catch (const std::system_error&) {
    file_.reset();
    throw;
  }
}

void RotatingFile::open() {
  // Non-blocking, should someone have put a FIFO there.
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK;
  file_ = UniqueFd(::open(path_.c_str(), kFlags, 0600));
  if (!file_ && errno == ENOENT) {
    makeDirectories(directory_);
    file_ = UniqueFd(::open(path_.c_str(), kFlags, 0600));
  }
  if (!file_) fail("open", path_);
}

RotatingFile::Outcome RotatingFile::tryAppend(std::string_view piece, bool mayRotate) {
  const Turn turn(file_.get(), isHeldUp_ ? milliseconds(0) : patience_);
  isHeldUp_ = turn.isOthers();
  // Only now: whoever had the turn before may have rotated.
  if (!isStillThere()) return Outcome::replaced;
  const auto size = sizeOf(file_.get(), path_);
  // Two that rotate at once would push out twice as much.
  if (size + piece.size() > maxBytes_ && mayRotate && !turn.isOthers()) {
    rotate();
    return Outcome::rotated;
  }
  write(piece, size);
  return Outcome::appended;
}

bool RotatingFile::isStillThere() const {
  struct stat opened{};
  struct stat named{};
  return ::fstat(file_.get(), &opened) == 0 && ::stat(path_.c_str(), &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

void RotatingFile::rotate() const {
  const auto aside = [&](int number) { return path_ + "." + std::to_string(number); };
  if (::unlink(aside(keep_).c_str()) != 0 && errno != ENOENT) fail("delete", aside(keep_));
  for (int number = keep_ - 1; number >= 1; --number) {
    renameIfThere(aside(number), aside(number + 1));
  }
  renameIfThere(path_, aside(1));
}

void RotatingFile::write(std::string_view piece, std::uint64_t sizeBefore) const {
  const WriteOutcome outcome = writeAll(file_.get(), piece);
  if (outcome.error == 0) return;
  // Nothing may follow a torn piece; only what another process appended meanwhile must stay.
  if (outcome.written > 0 && sizeOf(file_.get(), path_) == sizeBefore + outcome.written) {
    (void)!::ftruncate(file_.get(), static_cast<off_t>(sizeBefore));
  }
  fail("write", path_, outcome.error);
}

}  // namespace verdo
