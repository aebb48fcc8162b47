#pragma once

#include "LocalService/LinesBody.h"
#include "VerdoDriverCore/System/Sync.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <openssl/evp.h>

namespace verdo::local {

/// A post of lines that took effect. A plain value.
struct LinesPost {
  std::uint64_t request = 0;  ///< RequestRecord::sequence
  std::size_t lines = 0;      ///< that it brought; none: a heartbeat
  std::chrono::steady_clock::time_point at;
};

/// The output lines of one job: counted, hashed, and stored if wanted. Every member may be called
/// from any thread.
class LineLog {
 public:
  struct Totals {
    std::uint64_t lines = 0;
    std::uint64_t bytes = 0;
    std::string sha256;  ///< lowercase hexadecimal
  };

  explicit LineLog(bool keep);

  void append(const LinesBatch& batch, std::uint64_t request);
  Totals totals() const;
  std::vector<std::string> lines(std::size_t from, std::size_t limit) const;
  std::vector<LinesPost> posts() const;  ///< in the order in which their lines were taken
  /// Whether a line from number `from` on contains `text`; moves `from` behind the lines looked at.
  bool contains(const std::string& text, std::size_t& from) const;

 private:
  struct DigestDeleter {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  };
  using Digest = std::unique_ptr<EVP_MD_CTX, DigestDeleter>;

  const bool keep_;
  mutable Mutex mutex_;
  Digest digest_ GUARDED_BY(mutex_);
  std::uint64_t count_ GUARDED_BY(mutex_) = 0;
  std::uint64_t bytes_ GUARDED_BY(mutex_) = 0;
  std::vector<std::string> lines_ GUARDED_BY(mutex_);
  std::vector<LinesPost> posts_ GUARDED_BY(mutex_);
};

}  // namespace verdo::local
