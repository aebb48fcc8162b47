#include "VerdoDriverCore/Network/FileDownload.h"

#include "VerdoDriverCore/System/Files.h"

#include <cerrno>
#include <new>
#include <system_error>

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/evp.h>
#include <unistd.h>

namespace verdo {

void FileDownload::DigestFree::operator()(evp_md_ctx_st* context) const {
  EVP_MD_CTX_free(context);
}

FileDownload::FileDownload(std::string path) : path_(std::move(path)), digest_(EVP_MD_CTX_new()) {
  if (!digest_ || EVP_DigestInit_ex(digest_.get(), EVP_sha256(), nullptr) != 1) {
    throw std::bad_alloc();
  }
}

FileDownload::~FileDownload() = default;

bool FileDownload::onBytes(int status, std::string_view bytes) {
  if (status < 200 || status > 299) return true;
  if (!file_ && !open()) return false;
  EVP_DigestUpdate(digest_.get(), bytes.data(), bytes.size());
  return writeAll(bytes);
}

bool FileDownload::open() {
  file_ =
      UniqueFd(::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!file_) failure_.emplace("OSError", fmt::format("cannot write {}", path_));
  return static_cast<bool>(file_);
}

bool FileDownload::writeAll(std::string_view bytes) {
  const WriteOutcome outcome = verdo::writeAll(file_.get(), bytes);
  if (outcome.error != 0) {
    failure_.emplace(
        "OSError", fmt::format("write failed: {}", std::generic_category().message(outcome.error)));
    return false;
  }
  return true;
}

std::string FileDownload::finish() {
  if (!file_ && !open()) throw *failure_;
  file_.reset();
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_DigestFinal_ex(digest_.get(), hash, &size);
  std::string digits;
  for (unsigned int i = 0; i < size; ++i) digits += fmt::format("{:02x}", hash[i]);
  return digits;
}

void FileDownload::discard() {
  if (!file_) return;
  file_.reset();
  ::unlink(path_.c_str());
}

}  // namespace verdo
