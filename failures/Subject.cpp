#include "failures/Subject.h"

#include "VerdoDriverCore/System/UniqueFd.h"
#include "tests/Support/Leaks.h"
#include "tests/Support/TempDir.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace verdo::failures {
namespace {

Report* mapReport(const std::string& path) {
  const UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  void* mapped = MAP_FAILED;
  if (file && ::ftruncate(file.get(), sizeof(Report)) == 0) {
    mapped = ::mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  }
  if (mapped == MAP_FAILED) throw std::system_error(errno, std::generic_category(), path);
  return static_cast<Report*>(mapped);
}

}  // namespace

Telling::Telling(std::string path) : path_(std::move(path)), report_(mapReport(path_)) {}

Telling::~Telling() { ::munmap(report_, sizeof(Report)); }

std::string Telling::trace() const { return test::contentOf(path_ + ".trace"); }

Environment Telling::orders(const std::optional<Attempt>& attempt, int speed) const {
  Environment variables{{"LD_PRELOAD", VERDO_FAILURES_LIBRARY},
                        {kReportVariable, path_},
                        {kSpeedVariable, std::to_string(speed)}};
  if (attempt) {
    variables[kCallVariable] = std::to_string(static_cast<int>(attempt->row.call));
    variables[kAtVariable] = std::to_string(attempt->at);
    variables[kErrorVariable] = std::to_string(attempt->row.error);
    variables[kLastingVariable] = attempt->row.lasting ? "1" : "0";
  }
  return variables;
}

Subject::Subject(const std::vector<std::string>& argv, const Environment& environment)
    : child_(Spawn::launch(argv.front(), argv, environment, false)),
      errorReader_(child_->takeStderr(),
                   [this](auto lines) {
                     MutexLock lock(lock_);
                     for (const auto line : lines) log_.append(line).append("\n");
                   }),
      outputReader_(child_->takeStdout(), [this](auto lines) {
        MutexLock lock(lock_);
        for (const auto line : lines) output_.append(line).append("\n");
      }) {
  errorReader_.start();
  outputReader_.start();
}

Subject::~Subject() { child_->release(); }

std::optional<int> Subject::wait(std::chrono::milliseconds timeout) const {
  std::optional<int> status;
  test::eventually([&] { return (status = child_->poll()).has_value(); }, timeout);
  // Its last words may still be on their way through the readers.
  if (status) {
    errorReader_.done().waitFor(std::chrono::seconds(2));
    outputReader_.done().waitFor(std::chrono::seconds(2));
  }
  return status;
}

std::string Subject::log() const {
  MutexLock lock(lock_);
  return log_;
}

std::string Subject::output() const {
  MutexLock lock(lock_);
  return output_;
}

}  // namespace verdo::failures
