#include "VerdoDriverCore/Network/FileDownload.h"

#include "VerdoDriverCore/System/Files.h"
#include "VerdoDriverCore/Values/PyError.h"

#include <new>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/evp.h>
#include <unistd.h>

namespace verdo {
namespace {

/// What is hashed and then written at a time: little enough to be in the processor's cache for
/// both, which halves the cost of a large file.
constexpr std::size_t kPiece = 64 * 1024;

[[noreturn]] void failWrite(int error) {
  throw PyError("OSError", fmt::format("write failed: {}", std::generic_category().message(error)));
}

}  // namespace

void FileDownload::DigestFree::operator()(evp_md_ctx_st* context) const {
  EVP_MD_CTX_free(context);
}

FileDownload::FileDownload(std::string path) : path_(std::move(path)), digest_(EVP_MD_CTX_new()) {
  if (!digest_ || EVP_DigestInit_ex(digest_.get(), EVP_sha256(), nullptr) != 1) {
    throw std::bad_alloc();
  }
}

FileDownload::~FileDownload() {
  file_.reset();
  if (isUnfinished_) ::unlink(path_.c_str());
}

void FileDownload::open() {
  file_ =
      UniqueFd(::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file_) throw PyError("OSError", fmt::format("cannot write {}", path_));
  isUnfinished_ = true;
}

void FileDownload::write(std::string_view bytes) {
  if (!file_) open();
  while (!bytes.empty()) {
    const auto piece = bytes.substr(0, kPiece);
    EVP_DigestUpdate(digest_.get(), piece.data(), piece.size());
    const WriteOutcome outcome = writeAll(file_.get(), piece);
    if (outcome.error != 0) failWrite(outcome.error);
    bytes.remove_prefix(piece.size());
  }
}

std::string FileDownload::finish() {
  if (!file_) open();
  if (const int error = closeWritten(std::exchange(file_, UniqueFd())); error != 0) {
    failWrite(error);
  }
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_DigestFinal_ex(digest_.get(), hash, &size);
  std::string digits;
  for (unsigned int i = 0; i < size; ++i) digits += fmt::format("{:02x}", hash[i]);
  isUnfinished_ = false;
  return digits;
}

}  // namespace verdo
