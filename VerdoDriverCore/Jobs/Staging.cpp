#include "VerdoDriverCore/Jobs/Staging.h"

#include "VerdoDriverCore/Jobs/FileStager.h"
#include "VerdoDriverCore/System/StartThread.h"
#include "VerdoDriverCore/System/ThreadName.h"

#include <exception>
#include <thread>
#include <utility>

#include <fmt/format.h>

namespace verdo {
namespace {

constexpr auto kDownloadTimeout = std::chrono::seconds(120);

}  // namespace

struct Staging::State {
  State(std::shared_ptr<JobHost> theHost, const Job& theJob, std::string thePayload)
      : host(std::move(theHost)), job(theJob), script(std::move(thePayload)) {}

  void run();
  std::string download(const std::string& url, const std::string& destination);
  void enter(const std::shared_ptr<HttpTask>& task) EXCLUDES(lock);
  void cancel() EXCLUDES(lock);

  const std::shared_ptr<JobHost> host;
  const Job job;
  std::unique_ptr<StagingDirectory> directory = std::make_unique<StagingDirectory>();

  // The staging thread's until `done`, then the job's.
  std::string script;
  std::exception_ptr failure;
  Event done;

  Mutex lock;
  std::shared_ptr<HttpTask> task GUARDED_BY(lock);  ///< the latest download
  bool cancelled GUARDED_BY(lock) = false;
};

void Staging::State::run() {
  try {
    script = FileStager::stage(
        job, std::move(script),
        [this](const auto& url, const auto& destination) { return download(url, destination); },
        host->log(), directory->path());
  } catch (...) {
    failure = std::current_exception();
  }
  done.set();
}

std::string Staging::State::download(const std::string& url, const std::string& destination) {
  return host->api().download(url, destination, kDownloadTimeout,
                              [this](const auto& started) { enter(started); });
}

void Staging::State::enter(const std::shared_ptr<HttpTask>& started) {
  MutexLock guard(lock);
  task = started;
  if (cancelled) task->cancel();
}

void Staging::State::cancel() {
  MutexLock guard(lock);
  cancelled = true;
  if (task) task->cancel();
}

Staging::Staging(std::shared_ptr<JobHost> host, const Job& job, std::string payload)
    : state_(std::make_shared<State>(std::move(host), job, std::move(payload))) {
  startThread([state = state_] {
    setThreadName(fmt::format("staging-{}", state->job.id));
    state->run();
  }).detach();
}

Staging::~Staging() { cancel(); }

const Event& Staging::done() const { return state_->done; }

std::string Staging::takeScript() {
  if (state_->failure) std::rethrow_exception(std::exchange(state_->failure, nullptr));
  return std::move(state_->script);
}

std::unique_ptr<StagingDirectory> Staging::takeDirectory() { return std::move(state_->directory); }

void Staging::cancel() { state_->cancel(); }

}  // namespace verdo
