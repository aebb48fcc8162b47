#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace verdo::test {

/// A fresh directory, removed with everything in it at the end.
class TempDir {
 public:
  TempDir() {
    std::string path = std::filesystem::temp_directory_path() / "verdo-test-XXXXXX";
    if (!::mkdtemp(path.data())) throw std::filesystem::filesystem_error("mkdtemp", path, {});
    path_ = path;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  /// Writes a file with exactly this mode and gives its path.
  std::string write(const std::string& name, const std::string& content,
                    std::filesystem::perms mode = std::filesystem::perms{0600}) const {
    const std::string path = *this / name;
    std::ofstream(path, std::ios::binary) << content;
    std::filesystem::permissions(path, mode);
    return path;
  }

 private:
  std::string path_;
};

/// The whole content of a file; what could be read of one that goes meanwhile, as /proc's do.
inline std::string contentOf(const std::string& path) {
  std::ostringstream content;  // which, unlike an iterator, throws nothing where reading fails
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

/// The lines of a file; none when it is not there.
inline std::vector<std::string> linesOf(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  return lines;
}

}  // namespace verdo::test
