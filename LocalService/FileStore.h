#pragma once

#include "LocalService/JobTypes.h"
#include "VerdoDriverCore/System/Sync.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace verdo::local {

/// The files under /files/. Every member may be called from any thread.
class FileStore {
 public:
  /// Files of `directory` are found by their name when no published one has it; may be empty.
  explicit FileStore(std::filesystem::path directory) : directory_(std::move(directory)) {}

  /// Publishes a file as /files/{name}, or under the folder of a job, and gives that path,
  /// percent-encoded. `sha256`, `url` and the omit options have no meaning here. A second file of
  /// the same name replaces the first.
  std::string add(FileSpec file, std::optional<std::int64_t> jobId = {});
  /// `name` is what follows /files/, decoded. Null when there is none.
  std::shared_ptr<const FileSpec> find(const std::string& name) const;
  /// Bytes of a file of the directory, named without any folder. Absent: none, or unreadable.
  std::optional<std::string> readFromDirectory(const std::string& name) const;
  void clear();

 private:
  const std::filesystem::path directory_;
  mutable Mutex mutex_;
  std::map<std::string, std::shared_ptr<const FileSpec>> files_ GUARDED_BY(mutex_);
};

}  // namespace verdo::local
