#include "VerdoDriverCore/Process/Which.h"

#include <cstdlib>

#include <sys/stat.h>
#include <unistd.h>

namespace verdo::Which {
namespace {

std::vector<std::string> searchPieces(const std::optional<std::string>& path) {
  const char* fromEnvironment = std::getenv("PATH");
  const std::string text =
      path ? *path : std::string(fromEnvironment ? fromEnvironment : kDefaultPath);
  std::vector<std::string> pieces;
  std::size_t begin = 0;
  for (;;) {
    const auto end = text.find(':', begin);
    const std::string piece = text.substr(begin, end - begin);
    pieces.push_back(piece.empty() ? "." : piece);
    if (end == std::string::npos) return pieces;
    begin = end + 1;
  }
}

}  // namespace

bool isExecutableFile(const std::string& path) {
  struct stat status{};
  return ::stat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode) &&
         ::access(path.c_str(), X_OK) == 0;
}

std::optional<std::string> find(const std::string& name,
                                const std::vector<std::string>& extraPathDirs,
                                const std::optional<std::string>& path) {
  if (name.empty()) return std::nullopt;
  if (name.find('/') != std::string::npos) {
    return isExecutableFile(name) ? std::optional(name) : std::nullopt;
  }
  std::vector<std::string> directories = extraPathDirs;
  for (auto& piece : searchPieces(path)) directories.push_back(std::move(piece));
  for (const auto& directory : directories) {
    std::string candidate = directory + "/" + name;
    if (isExecutableFile(candidate)) return candidate;
  }
  return std::nullopt;
}

}  // namespace verdo::Which
