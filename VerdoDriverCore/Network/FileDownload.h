#pragma once

#include "VerdoDriverCore/System/UniqueFd.h"

#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace verdo {

/// A file that is written and hashed piece by piece: memory does not grow with it. Used by one
/// thread, which waits for the disk. Nothing is left of a file that was not finished.
class FileDownload {
 public:
  /// The file at `path` is created with mode 0600, or truncated, at the first write.
  explicit FileDownload(std::string path);
  ~FileDownload();
  FileDownload(const FileDownload&) = delete;
  FileDownload& operator=(const FileDownload&) = delete;

  /// Throws PyError "OSError".
  void write(std::string_view bytes);
  /// Closes the file (one without bytes is made now) and gives the SHA-256 of its bytes as 64
  /// lowercase hexadecimal digits. Called once. Throws PyError "OSError", also for writes that the
  /// system only now says have failed.
  std::string finish();

 private:
  struct DigestFree {
    void operator()(evp_md_ctx_st* context) const;
  };

  void open();

  const std::string path_;
  UniqueFd file_;
  bool isUnfinished_ = false;  ///< there is a file at path_ that must not stay
  std::unique_ptr<evp_md_ctx_st, DigestFree> digest_;
};

}  // namespace verdo
