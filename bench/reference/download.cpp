// The least that downloads a file with libcurl, hashing it on the way: what the driver's downloads
// are compared with. Prints seconds of CPU, peak memory in kibibytes, and the SHA-256.
// Usage: verdo-bench-download URL FILE
#include <cstdio>
#include <memory>

#include <curl/curl.h>
#include <openssl/evp.h>
#include <sys/resource.h>

namespace {

struct Target {
  std::FILE* file;
  EVP_MD_CTX* digest;
};

std::size_t take(char* bytes, std::size_t size, std::size_t count, void* user) {
  const auto* target = static_cast<const Target*>(user);
  EVP_DigestUpdate(target->digest, bytes, size * count);
  return std::fwrite(bytes, size, count, target->file);
}

double seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  curl_global_init(CURL_GLOBAL_DEFAULT);
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(curl_easy_init(),
                                                                   &curl_easy_cleanup);
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> digest(EVP_MD_CTX_new(),
                                                                       &EVP_MD_CTX_free);
  EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr);
  Target target{std::fopen(argv[2], "wb"), digest.get()};
  if (!target.file) return 1;
  curl_easy_setopt(handle.get(), CURLOPT_URL, argv[1]);
  curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, &take);
  curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &target);
  if (curl_easy_perform(handle.get()) != CURLE_OK || std::fclose(target.file) != 0) return 1;
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_DigestFinal_ex(digest.get(), hash, &size);
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf("%.3f %ld ", seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_maxrss);
  for (unsigned int i = 0; i < size; ++i) std::printf("%02x", hash[i]);
  return 0;
}
