#include "VerdoDriverCore/Run/SpaceClaim.h"

#include "VerdoDriverCore/System/Files.h"
#include "VerdoDriverCore/Values/Utf8.h"

#include <array>
#include <cerrno>
#include <filesystem>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

namespace verdo {
namespace {

constexpr const char* kClaimPrefix = "driver-";
constexpr const char* kClaimSuffix = ".lock";

/// A file name for a server's URL: readable, and as short as file systems want it.
std::string fileNameOf(const std::string& server) {
  constexpr std::size_t kMaxName = 150;
  std::string name;
  for (const char c : server.substr(0, kMaxName)) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '.' || c == '-';
    name.push_back(plain ? c : '_');
  }
  return name;
}

std::string holderNamedIn(int file) {
  std::array<char, 64> text{};
  const ssize_t size = ::pread(file, text.data(), text.size(), 0);
  const std::string name(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
  return name.empty() ? "a process that gives no number" : withoutControls(name);
}

/// The files of claims.
std::vector<std::string> claimsIn(const std::string& directory) {
  std::vector<std::string> paths;
  std::error_code missing;
  for (const auto& entry : std::filesystem::directory_iterator(directory, missing)) {
    const auto name = entry.path().filename().string();
    if (name.starts_with(kClaimPrefix) && name.ends_with(kClaimSuffix))
      paths.push_back(entry.path());
  }
  return paths;
}

}  // namespace

std::string SpaceClaim::holderIn(const std::string& directory) {
  for (const auto& path : claimsIn(directory)) {
    // NFS locks only what is open for writing.
    const UniqueFd file(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    if (!file || ::flock(file.get(), LOCK_EX | LOCK_NB) == 0) continue;
    if (errno == EWOULDBLOCK) return holderNamedIn(file.get());
  }
  return "";
}

void SpaceClaim::forgetIn(const std::string& directory) {
  for (const auto& path : claimsIn(directory)) {
    const UniqueFd file(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    if (file && ::flock(file.get(), LOCK_EX | LOCK_NB) == 0) ::unlink(path.c_str());
  }
}

SpaceClaim::SpaceClaim(std::string directory, const std::string& server, std::int64_t userId,
                       std::function<void(const std::string&)> onHolder)
    : directory_(std::move(directory)),
      path_(fmt::format("{}/{}{}-user-{}{}", directory_, kClaimPrefix, fileNameOf(server), userId,
                        kClaimSuffix)),
      onHolder_(std::move(onHolder)) {}

SpaceClaim::~SpaceClaim() = default;

bool SpaceClaim::take() {
  std::string holder;
  {
    MutexLock lock(lock_);
    if (file_) return true;
    holder = holderUnlessOurs();
    if (holder == lastHolder_) return holder.empty();
    lastHolder_ = holder;
  }
  onHolder_(holder);
  return holder.empty();
}

/// Takes the lock, or tells whose it is.
std::string SpaceClaim::holderUnlessOurs() {
  makePrivateDirectory(directory_);  // opening the file tells
  UniqueFd file(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file) return "";
  if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    return errno == EWOULDBLOCK ? holderNamedIn(file.get()) : "";
  }
  // For people; who holds the lock needs no writing.
  if (::ftruncate(file.get(), 0) == 0) {
    static_cast<void>(writeAll(file.get(), fmt::format("process {}", ::getpid())));
  }
  file_ = std::move(file);
  return "";
}

}  // namespace verdo
