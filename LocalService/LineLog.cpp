#include "LocalService/LineLog.h"

#include "LocalService/Sha256.h"

#include <algorithm>

namespace verdo::local {

LineLog::LineLog(bool keep) : keep_(keep), digest_(EVP_MD_CTX_new()) {
  EVP_DigestInit_ex(digest_.get(), EVP_sha256(), nullptr);
}

void LineLog::append(const LinesBatch& batch, std::uint64_t request) {
  const MutexLock lock(mutex_);
  posts_.push_back({request, batch.ends.size(), std::chrono::steady_clock::now()});
  EVP_DigestUpdate(digest_.get(), batch.text.data(), batch.text.size());
  count_ += batch.ends.size();
  bytes_ += batch.text.size() - batch.ends.size();
  if (!keep_) return;
  std::size_t begin = 0;
  for (const auto end : batch.ends) {
    lines_.emplace_back(batch.text, begin, end - begin - 1);
    begin = end;
  }
}

LineLog::Totals LineLog::totals() const {
  const MutexLock lock(mutex_);
  const Digest copy(EVP_MD_CTX_new());
  EVP_MD_CTX_copy_ex(copy.get(), digest_.get());
  std::string sum(32, '\0');
  EVP_DigestFinal_ex(copy.get(), reinterpret_cast<unsigned char*>(sum.data()), nullptr);
  return {count_, bytes_, hex(sum)};
}

std::vector<std::string> LineLog::lines(std::size_t from, std::size_t limit) const {
  const MutexLock lock(mutex_);
  from = std::min(from, lines_.size());
  const auto count = std::min(limit, lines_.size() - from);
  const auto begin = lines_.begin() + static_cast<std::ptrdiff_t>(from);
  return {begin, begin + static_cast<std::ptrdiff_t>(count)};
}

std::vector<LinesPost> LineLog::posts() const {
  const MutexLock lock(mutex_);
  return posts_;
}

bool LineLog::contains(const std::string& text, std::size_t& from) const {
  const MutexLock lock(mutex_);
  for (; from < lines_.size(); ++from) {
    if (lines_[from].find(text) != std::string::npos) return true;
  }
  return false;
}

}  // namespace verdo::local
