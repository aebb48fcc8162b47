#include "tests/Support/Leaks.h"

#include "tests/Support/TempDir.h"

#include <filesystem>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

namespace verdo::test {

namespace fs = std::filesystem;

std::vector<std::string> openDescriptors() {
  std::vector<std::string> found;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const auto target = fs::read_symlink(entry.path(), gone);
    // The listing's own descriptor is in the listing.
    if (gone || target.string().ends_with("/fd")) continue;
    found.push_back(entry.path().filename().string() + " " + target.string());
  }
  return found;
}

std::vector<std::string> threadNames() {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator("/proc/self/task")) {
    std::string name = contentOf(entry.path() / "comm");
    if (name.empty()) continue;
    name.pop_back();
    names.push_back(name);
  }
  return names;
}

std::vector<pid_t> processesOf(const std::string& home) {
  std::vector<pid_t> found;
  const std::string tag = "HOME=" + home;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const auto pid = static_cast<pid_t>(std::stol(name));
    const std::string environment = '\0' + contentOf(entry.path() / "environ");
    if (pid != ::getpid() && environment.find('\0' + tag + '\0') != std::string::npos) {
      found.push_back(pid);
    }
  }
  return found;
}

bool hasChildren() {
  siginfo_t info{};
  return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace verdo::test
