#include "LocalService/FileStore.h"

#include "LocalService/Sha256.h"

#include <fstream>
#include <iterator>
#include <utility>

namespace verdo::local {
namespace {

std::string percentEncoded(const std::string& text) {
  constexpr std::string_view plain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~/";
  std::string encoded;
  for (const char c : text) {
    if (plain.find(c) != std::string_view::npos) {
      encoded += c;
    } else {
      encoded += "%" + hex(std::string_view(&c, 1));
    }
  }
  return encoded;
}

}  // namespace

std::string FileStore::add(FileSpec file, std::optional<std::int64_t> jobId) {
  const auto key = jobId ? std::to_string(*jobId) + "/" + file.name : file.name;
  const MutexLock lock(mutex_);
  files_[key] = std::make_shared<const FileSpec>(std::move(file));
  return "/files/" + percentEncoded(key);
}

std::shared_ptr<const FileSpec> FileStore::find(const std::string& name) const {
  {
    const MutexLock lock(mutex_);
    const auto found = files_.find(name);
    if (found != files_.end()) return found->second;
  }
  auto content = readFromDirectory(name);
  if (!content) return nullptr;
  return std::make_shared<const FileSpec>(FileSpec{.name = name, .content = std::move(*content)});
}

std::optional<std::string> FileStore::readFromDirectory(const std::string& name) const {
  const bool plain = !name.empty() && name != "." && name != ".." &&
                     name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
  if (directory_.empty() || !plain) return std::nullopt;
  std::error_code error;
  if (!std::filesystem::is_regular_file(directory_ / name, error)) return std::nullopt;
  std::ifstream file(directory_ / name, std::ios::binary);
  if (!file) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

void FileStore::clear() {
  const MutexLock lock(mutex_);
  files_.clear();
}

}  // namespace verdo::local
