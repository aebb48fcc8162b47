#include "tests/Support/Program.h"

#include "tests/Support/Leaks.h"
#include "tests/Support/TempDir.h"

namespace verdo::test {
namespace {

std::unique_ptr<ChildProcess> launch(const std::vector<std::string>& arguments,
                                     const Environment& environment,
                                     const std::vector<std::string>& starter) {
  std::vector<std::string> argv = starter;
  argv.emplace_back(VERDO_DRIVER_PROGRAM);
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return Spawn::launch(argv.front(), argv, environment, false);
}

}  // namespace

Program::Program(const std::vector<std::string>& arguments, const Environment& environment,
                 const std::vector<std::string>& starter)
    : child_(launch(arguments, environment, starter)),
      outputReader_(child_->takeStdout(), into(output_)),
      errorReader_(child_->takeStderr(), into(errors_)) {
  outputReader_.start();
  errorReader_.start();
}

LineReader::OnLines Program::into(std::string& text) {
  return [this, &text](std::span<const std::string_view> lines) {
    const std::lock_guard lock(mutex_);
    for (const auto line : lines) text.append(line).append("\n");
    changed_.notify_all();
  };
}

std::optional<int> Program::wait() {
  std::optional<int> status;
  eventually([&] { return (status = child_->poll()).has_value(); }, std::chrono::seconds(30));
  // Its last words come before its end, but may still be on their way through the readers.
  if (status) {
    outputReader_.done().waitFor(std::chrono::seconds(5));
    errorReader_.done().waitFor(std::chrono::seconds(5));
  }
  return status;
}

bool Program::waitForError(const std::string& text) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, std::chrono::seconds(20),
                           [&] { return errors_.find(text) != std::string::npos; });
}

std::string Program::output() const {
  const std::lock_guard lock(mutex_);
  return output_;
}

std::string Program::errors() const {
  const std::lock_guard lock(mutex_);
  return errors_;
}

std::string Program::proc(const std::string& name) const {
  return contentOf("/proc/" + std::to_string(pid()) + "/" + name);
}

std::size_t Program::peakMemory() const {
  const std::string status = proc("status");
  const std::string key = "VmHWM:";
  const auto at = status.find(key);
  return at == std::string::npos ? 0 : std::stoul(status.substr(at + key.size())) * 1024;
}

}  // namespace verdo::test
