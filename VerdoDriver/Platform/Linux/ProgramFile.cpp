#include "VerdoDriver/Platform/Linux/ProgramFile.h"

#include <sys/stat.h>
#include <unistd.h>

namespace verdo {

ProgramFile::ProgramFile(std::string path) : path_(std::move(path)), own_(programAt(path_)) {}

bool ProgramFile::isReplaced() const {
  const auto now = own_ ? programAt(path_) : std::nullopt;
  return now && now != own_;
}

std::optional<ProgramFile::Identity> ProgramFile::programAt(const std::string& path) {
  struct stat status{};
  if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  if (::access(path.c_str(), X_OK) != 0) return std::nullopt;
  return Identity(status.st_dev, status.st_ino);
}

}  // namespace verdo
