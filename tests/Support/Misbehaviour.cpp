#include "tests/Support/Misbehaviour.h"

#include "VerdoDriverCore/Jobs/StagingDirectory.h"
#include "VerdoDriverCore/System/Files.h"
#include "tests/Support/ExecutorRole.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

extern char** environ;

namespace verdo::test {
namespace {

constexpr const char* kRoleFlag = "--misbehave";
constexpr int kLongest = 120;  // seconds: a role that is forgotten ends by itself

using Role = std::vector<std::string>;

int sleepReady(const std::string& seconds) {
  std::cout << "ready" << std::endl;
  const unsigned wanted = static_cast<unsigned>(std::stoul(seconds));
  for (unsigned left = wanted; left > 0;) left = ::sleep(left);
  return 0;
}

int flood(long long bytes) {
  std::string block;
  while (block.size() < 65'000) block += std::string(99, 'x') + '\n';
  for (; bytes > 0; bytes -= static_cast<long long>(block.size())) {
    block.resize(static_cast<std::size_t>(std::min<long long>(bytes, 65'000)));
    if (writeAll(STDOUT_FILENO, block).error != 0) return 1;
  }
  return 0;
}

Role rest(const Role& role) { return {role.begin() + 1, role.end()}; }

int withGrandchild(const Role& role, bool stay) {
  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  if (child == 0) {
    // What the grandchild says then also says that its parent has gone.
    while (!stay && ::getppid() == parent) ::usleep(1000);
    _exit(misbehave(rest(role)));
  }
  std::cout << "grandchild " << child << std::endl;
  if (!stay) return 0;
  return sleepReady(std::to_string(kLongest));
}

/// Copies standard input to a file that only appears once it is complete.
int swallow(const std::string& path) {
  {
    std::ofstream file(path + ".part", std::ios::binary);
    file << std::cin.rdbuf();
  }
  std::filesystem::rename(path + ".part", path);
  return 0;
}

int floodAndSwallow(const std::string& path) {
  const pid_t child = ::fork();
  if (child == 0) _exit(flood(1LL << 50));
  const int result = swallow(path);
  ::kill(child, SIGKILL);
  return result;
}

/// The group, and the masks of ignored and blocked signals, as the kernel tells them.
int printSignals() {
  std::cout << "Group:\t" << (::getpgrp() == ::getpid() ? "own" : "other") << "\n";
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (!line.starts_with("SigBlk") && !line.starts_with("SigIgn")) continue;
    // The C library keeps 32 and 33 for itself.
    const auto mask = std::stoull(line.substr(8), nullptr, 16) & ~(3ull << 31);
    std::cout << line.substr(0, 8) << mask << "\n";
  }
  return 0;
}

int printDescriptors() {
  for (int fd = 0; fd < 1024; ++fd) {
    if (::fcntl(fd, F_GETFD) >= 0) std::cout << fd << "\n";
  }
  return 0;
}

}  // namespace

int misbehave(const Role& role) {
  const std::string& name = role.at(0);
  if (name == "flood") return flood(std::stoll(role.at(1)));
  if (name == "exit") return std::stoi(role.at(1));
  if (name == "raise") return ::raise(std::stoi(role.at(1)));
  if (name == "deaf") {
    ::signal(SIGTERM, SIG_IGN);
    return sleepReady(std::to_string(kLongest));
  }
  if (name == "grandchild") return withGrandchild(role, true);
  if (name == "leave") return withGrandchild(role, false);
  if (name == "session") {
    ::setsid();
    return misbehave(rest(role));
  }
  if (name == "sleep") return sleepReady(role.at(1));
  if (name == "noinput") return sleepReady(std::to_string(kLongest));
  if (name == "environment") {
    for (char** entry = environ; *entry; ++entry) std::cout << *entry << "\n";
    return 0;
  }
  if (name == "descriptors") return printDescriptors();
  if (name == "signals") return printSignals();
  if (name == "regroup") {
    ::setpgid(0, ::getpgid(::getppid()));
    return misbehave(rest(role));
  }
  if (name == "closed") {
    ::close(STDOUT_FILENO);
    ::close(STDERR_FILENO);
    return misbehave(rest(role));
  }
  if (name == "swallow") return swallow(role.at(1));
  if (name == "floodswallow") return floodAndSwallow(role.at(1));
  if (name == "stage") {
    const StagingDirectory directory(role.at(1));
    std::cout << directory.path() << std::endl;
    return sleepReady(std::to_string(kLongest));
  }
  if (name == "print") {
    std::cout << role.at(1) << std::flush;
    std::cerr << role.at(2) << std::flush;
    return std::stoi(role.at(3));
  }
  if (name == "executor") return executeScript(role.at(1));
  std::cerr << "no such role: " << name << "\n";
  return 2;
}

std::string selfPath() { return std::filesystem::read_symlink("/proc/self/exe"); }

std::string roleCommand(const std::string& role) {
  return "'" + selfPath() + "' " + kRoleFlag + " " + role;
}

Role roleArgv(const Role& role) {
  Role argv{selfPath(), kRoleFlag};
  argv.insert(argv.end(), role.begin(), role.end());
  return argv;
}

}  // namespace verdo::test
