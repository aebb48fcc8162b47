#include "bench/Benches.h"
#include "bench/Child.h"
#include "bench/Driver.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

#include <fmt/format.h>
#include <openssl/evp.h>
#include <sys/resource.h>
#include <unistd.h>

namespace verdo::bench {
namespace {

using namespace std::chrono_literals;

constexpr long long kBytes = 1'000'000'000;
constexpr std::uint64_t kLines = kBytes / 100;
constexpr double kMaxTimes = 4;
constexpr double kMaxMemory = 64;  // MB

/// What a program that only reads the same pipe and finds the line ends needs.
struct Reference {
  double cpu = 0;      ///< seconds
  std::string digest;  ///< of the bytes that it read
};

double threadCpu() {
  rusage usage{};
  ::getrusage(RUSAGE_THREAD, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// Reads the child's output to its end. With `digest`, hashes it; else counts its lines.
std::uint64_t readAll(const UniqueFd& pipe, EVP_MD_CTX* digest) {
  static char chunk[65536];
  std::uint64_t lines = 0;
  for (;;) {
    const ssize_t size = ::read(pipe.get(), chunk, sizeof chunk);
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) return lines;
    if (digest) EVP_DigestUpdate(digest, chunk, static_cast<std::size_t>(size));
    const char* at = chunk;
    const char* const end = chunk + size;
    while (!digest && (at = static_cast<const char*>(
                           std::memchr(at, '\n', static_cast<std::size_t>(end - at))))) {
      ++lines;
      ++at;
    }
  }
}

std::uint64_t readChild(EVP_MD_CTX* digest) {
  const auto child = Spawn::launch(VERDO_CHILD_PATH, childArgv({"flood", std::to_string(kBytes)}),
                                   currentEnvironment(), true);
  child->takeStdin();
  const UniqueFd output = child->takeStdout();
  return readAll(output, digest);
}

Reference measureReference() {
  Reference reference;
  const double before = threadCpu();
  if (readChild(nullptr) != kLines) throw std::runtime_error("the reference lost lines");
  reference.cpu = threadCpu() - before;

  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                        &EVP_MD_CTX_free);
  EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr);
  readChild(context.get());
  unsigned char hash[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_DigestFinal_ex(context.get(), hash, &size);
  for (unsigned int i = 0; i < size; ++i) reference.digest += fmt::format("{:02x}", hash[i]);
  return reference;
}

}  // namespace

void benchOutput(std::vector<Row>& rows) {
  const Reference reference = measureReference();
  local::LocalService service;
  service.start();
  const auto driver = startDriver(service, childCommand(fmt::format("flood {}", kBytes)));
  if (!service.requests().waitFor("poll", 1, 10s)) throw std::runtime_error("no poll came");
  const double before = driver.usage().cpu;
  local::JobSpec spec;
  spec.payload = "flood";
  spec.keepLines = false;
  const auto id = service.jobs().add(spec);
  if (!service.jobs().waitFor(id, local::JobState::done, 120s)) {
    throw std::runtime_error("the job that prints a gigabyte did not end");
  }
  const Usage usage = driver.usage();
  const double cpu = usage.cpu - before;
  const auto job = service.jobs().find(id).value();
  const bool whole = job.lineCount == kLines && job.linesSha256 == reference.digest;
  rows.push_back({"1 GB in 100-byte lines: CPU", fmt::format("{:.2f} s", cpu),
                  fmt::format("{:.2f} s", kMaxTimes * reference.cpu),
                  cpu <= kMaxTimes * reference.cpu,
                  fmt::format("reading and splitting {:.2f} s", reference.cpu)});
  rows.push_back({"1 GB in 100-byte lines: peak memory", fmt::format("{:.1f} MB", usage.peakRss),
                  fmt::format("{:.0f} MB", kMaxMemory), usage.peakRss <= kMaxMemory, ""});
  rows.push_back({"1 GB in 100-byte lines: each once, in order",
                  fmt::format("{} lines, digest {}", job.lineCount, whole ? "same" : "DIFFERS"),
                  fmt::format("{} lines", kLines), whole, "SHA-256 of the child's output"});
}

}  // namespace verdo::bench
