#include "bench/Benches.h"
#include "bench/ByteServer.h"
#include "bench/Child.h"
#include "bench/Driver.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include <fmt/format.h>

namespace verdo::bench {
namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t kBytes = 1'000'000'000;
constexpr double kMaxTimes = 1.5;
constexpr double kMaxMemory = 24;  // MB

/// What a program needs that only downloads and hashes the same bytes.
struct Reference {
  double cpu = 0;   ///< seconds
  double peak = 0;  ///< MB
  std::string digest;
};

Reference measureReference(const std::string& url, const std::string& file) {
  const auto command = fmt::format("'{}' '{}' '{}'", VERDO_DOWNLOAD_PATH, url, file);
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> output(::popen(command.c_str(), "r"),
                                                               &::pclose);
  Reference reference;
  double kibibytes = 0;
  char digest[65] = {};
  if (!output ||
      std::fscanf(output.get(), "%lf %lf %64s", &reference.cpu, &kibibytes, digest) != 3) {
    throw std::runtime_error("the reference download failed");
  }
  reference.peak = kibibytes * 1024 / 1e6;
  reference.digest = digest;
  return reference;
}

/// A directory of its own, for what the driver and the reference download.
class Scratch {
 public:
  Scratch() : path_(std::filesystem::temp_directory_path() / "verdo-bench-XXXXXX") {
    if (!::mkdtemp(path_.data())) throw std::runtime_error("cannot make a directory");
  }
  ~Scratch() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace

void benchDownload(std::vector<Row>& rows) {
  const ByteServer server(kBytes);
  const Scratch scratch;
  const std::string file = scratch.path() + "/reference";
  const Reference reference = measureReference(server.url(), file);
  std::filesystem::remove(file);

  local::LocalService service;
  service.start();
  const auto driver = startDriver(service, childCommand("flood 100"), {{"HOME", scratch.path()}});
  if (!service.requests().waitFor("poll", 1, 10s)) throw std::runtime_error("no poll came");
  const double before = driver.usage().cpu;
  local::JobSpec spec;
  spec.payload = "flood";
  spec.files = {{.name = "big", .sha256 = reference.digest, .url = server.url()}};
  const auto id = service.jobs().add(spec);
  if (!service.jobs().waitFor(id, local::JobState::done, 120s)) {
    throw std::runtime_error("the job with a file of a gigabyte did not end");
  }
  const Usage usage = driver.usage();
  const double cpu = usage.cpu - before;
  if (service.jobs().find(id).value().lineCount != 1) {
    throw std::runtime_error("the job with a file of a gigabyte did not run");
  }
  rows.push_back({"1 GB download: CPU", fmt::format("{:.2f} s", cpu),
                  fmt::format("{:.2f} s", kMaxTimes * reference.cpu),
                  cpu <= kMaxTimes * reference.cpu,
                  fmt::format("bare libcurl, hashing {:.2f} s", reference.cpu)});
  rows.push_back({"1 GB download: peak memory", fmt::format("{:.1f} MB", usage.peakRss),
                  fmt::format("{:.0f} MB", kMaxMemory), usage.peakRss <= kMaxMemory,
                  fmt::format("bare libcurl, hashing {:.1f} MB", reference.peak)});
}

}  // namespace verdo::bench
