#include "VerdoDriverCore/Contract/DriverConstants.h"

#include "VerdoDriverCore/Values/Utf8.h"

#include <cstdlib>

#include <pwd.h>
#include <unistd.h>

namespace verdo::DriverConstants {
namespace {

std::string homeDirectory() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;
  if (const passwd* account = ::getpwuid(::getuid())) return account->pw_dir;
  return "/";
}

}  // namespace

std::string envFile() { return expandTilde("~/.config/verdo/driver.env"); }

std::string expandTilde(const std::string& path) {
  if (path != "~" && !path.starts_with("~/")) return path;
  return homeDirectory() + path.substr(1);
}

std::string lastFour(const std::string& secret) { return lastCharacters(secret, 4); }

}  // namespace verdo::DriverConstants
