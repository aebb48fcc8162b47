#include "VerdoDriverCore/Process/GroupRecord.h"

#include "VerdoDriverCore/System/Files.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace verdo {
namespace {

namespace fs = std::filesystem;

constexpr const char* kRecordPrefix = "groups-";
// A write that did not come to its end leaves a line cut short, or older ones behind the last.
constexpr const char* kLineEnd = ".";
constexpr const char* kRecordEnd = "end";
/// Of a record, bytes; those of a thousand jobs take 32 KiB.
constexpr std::size_t kMaxRecord = 1u << 20;

/// Nobody has removed the file since it was opened.
bool isStillThere(const UniqueFd& file) {
  struct stat status{};
  return ::fstat(file.get(), &status) == 0 && status.st_nlink > 0;
}

bool isLocked(const UniqueFd& file) {
  return file && ::flock(file.get(), LOCK_EX | LOCK_NB) == 0 && isStillThere(file);
}

/// What others have written does not say which of our processes end.
bool isOurRecord(const UniqueFd& file) {
  struct stat status{};
  return ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) &&
         status.st_uid == ::geteuid();
}

std::string contentOf(const UniqueFd& file) {
  std::string text;
  std::array<char, 4096> part{};
  ssize_t size = 0;
  while (text.size() < kMaxRecord && (size = ::pread(file.get(), part.data(), part.size(),
                                                     static_cast<off_t>(text.size()))) > 0) {
    text.append(part.data(), static_cast<std::size_t>(size));
  }
  return text;
}

struct Left {
  pid_t group = 0;
  ProcessList::Time start = 0;  ///< of its leader
};

/// The groups of a record that may still be the same.
std::vector<Left> groupsIn(const std::string& record) {
  std::istringstream text(record);
  std::string scope;
  ProcessList::Time lastSign = 0;
  if (!(text >> scope >> lastSign) || scope != ProcessList::scope()) return {};

  std::vector<Left> groups;
  const auto isOurs = [&](const Left& left) {
    // While the driver lived it kept the leader's number from being given away. A member from that
    // time proves that the group has existed without a gap since then.
    const auto leader = ProcessList::startOf(left.group);
    if (leader) return *leader == left.start;
    const auto members = ProcessList::inGroup(left.group);
    return std::any_of(members.begin(), members.end(), [&](const ProcessList::Member& member) {
      return member.start >= left.start && member.start <= lastSign;
    });
  };
  std::string lineEnd;
  for (Left left; text >> left.group >> left.start >> lineEnd && lineEnd == kLineEnd;) {
    if (left.group > 1 && isOurs(left)) groups.push_back(left);
  }
  return groups;
}

bool isAlive(pid_t group) { return !ProcessList::inGroup(group).empty(); }

void end(const std::vector<Left>& groups, const TerminationTimings& timings) {
  const auto signalAll = [&](int signal) {
    for (const auto& left : groups) ::kill(-left.group, signal);
  };
  signalAll(SIGTERM);
  for (int step = 0; step < timings.steps; ++step) {
    if (std::none_of(groups.begin(), groups.end(),
                     [](const Left& left) { return isAlive(left.group); })) {
      return;
    }
    std::this_thread::sleep_for(timings.step);
  }
  signalAll(SIGKILL);
}

}  // namespace

GroupRecord::GroupRecord(std::string directory) : directory_(std::move(directory)) {}

GroupRecord::~GroupRecord() {
  MutexLock lock(lock_);
  removeFile();
}

void GroupRecord::add(pid_t group) {
  const auto start = ProcessList::startOf(group);
  if (!start) return;
  MutexLock lock(lock_);
  groups_.insert_or_assign(group, *start);
  write();
}

void GroupRecord::remove(pid_t group) {
  MutexLock lock(lock_);
  if (groups_.erase(group) == 0) return;
  if (groups_.empty()) {
    removeFile();  // a process may end without destructors
  } else {
    write();
  }
}

void GroupRecord::confirm() {
  MutexLock lock(lock_);
  const auto age = std::chrono::steady_clock::now() - written_;
  if (!groups_.empty() && age >= std::chrono::seconds(1)) write();
}

void GroupRecord::removeFile() {
  if (file_) ::unlink(path_.c_str());
  file_.reset();
}

void GroupRecord::write() {
  if (file_ && !isStillThere(file_)) file_.reset();  // somebody has cleaned the cache
  if (!file_) {
    makePrivateDirectory(directory_);  // opening the file tells
    std::string path = directory_ + "/" + kRecordPrefix + "XXXXXX";
    UniqueFd file(::mkostemp(path.data(), O_CLOEXEC));
    // Between these two steps another driver's look may have taken it for an abandoned one.
    if (!isLocked(file)) {
      if (file) ::unlink(path.c_str());
      return;
    }
    file_ = std::move(file);
    path_ = std::move(path);
  }
  written_ = std::chrono::steady_clock::now();
  std::string text = fmt::format("{} {}\n", ProcessList::scope(), ProcessList::now());
  for (const auto& [group, start] : groups_) {
    text += fmt::format("{} {} {}\n", group, start, kLineEnd);
  }
  text += kRecordEnd;
  if (::lseek(file_.get(), 0, SEEK_SET) != 0) return;
  const auto written = writeAll(file_.get(), text).written;
  static_cast<void>(::ftruncate(file_.get(), static_cast<off_t>(written)));
}

std::vector<pid_t> GroupRecord::endAbandoned(const std::string& directory,
                                             const TerminationTimings& timings) {
  std::vector<UniqueFd> files;  // ours until all is done, so that nobody else does the same
  std::vector<std::string> paths;
  std::vector<Left> groups;
  std::error_code missing;
  for (auto entry = fs::directory_iterator(directory, missing);
       !missing && entry != fs::directory_iterator(); entry.increment(missing)) {
    const fs::path& path = entry->path();
    if (!path.filename().string().starts_with(kRecordPrefix)) continue;
    // NFS locks only what is open for writing.
    UniqueFd file(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!isLocked(file) || !isOurRecord(file)) continue;
    const auto some = groupsIn(contentOf(file));
    groups.insert(groups.end(), some.begin(), some.end());
    files.push_back(std::move(file));
    paths.push_back(path);
  }
  if (!groups.empty()) end(groups, timings);
  for (const auto& path : paths) ::unlink(path.c_str());

  std::vector<pid_t> ended;
  ended.reserve(groups.size());
  for (const auto& left : groups) ended.push_back(left.group);
  return ended;
}

}  // namespace verdo
