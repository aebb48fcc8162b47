#pragma once

#include "VerdoDriverCore/Network/HttpSession.h"
#include "VerdoDriverCore/System/UniqueFd.h"
#include "VerdoDriverCore/Values/PyError.h"

#include <optional>
#include <string>

struct evp_md_ctx_st;

namespace verdo {

/// Streams a response with a status from 200 to 299 into a file and hashes it on the way: memory
/// does not grow with the file. Responses with another status touch no file.
class FileDownload : public HttpBodySink {
 public:
  /// The file at `path` is created with mode 0600, or truncated, when the first byte comes.
  explicit FileDownload(std::string path);
  ~FileDownload() override;
  FileDownload(const FileDownload&) = delete;
  FileDownload& operator=(const FileDownload&) = delete;

  bool onBytes(int status, std::string_view bytes) override;

  /// What ended the download on this side, if anything did: PyError "OSError".
  const std::optional<PyError>& failure() const { return failure_; }
  /// Closes the file (an empty response makes an empty one) and gives the SHA-256 of its bytes as
  /// 64 lowercase hexadecimal digits. Throws PyError "OSError".
  std::string finish();
  /// Closes and removes the file, if there is one.
  void discard();

 private:
  struct DigestFree {
    void operator()(evp_md_ctx_st* context) const;
  };

  bool open();
  bool writeAll(std::string_view bytes);

  std::string path_;
  UniqueFd file_;
  std::unique_ptr<evp_md_ctx_st, DigestFree> digest_;
  std::optional<PyError> failure_;
};

}  // namespace verdo
