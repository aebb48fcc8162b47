#include "LocalService/Jobs.h"

#include "LocalService/Deadline.h"
#include "LocalService/Sha256.h"

#include <utility>

namespace verdo::local {
namespace {

using nlohmann::ordered_json;

ordered_json jobObject(std::int64_t id, const JobSpec& spec) {
  ordered_json object{{"job_id", id}};
  if (!spec.label.empty()) object["label"] = spec.label;
  object["kind"] = spec.kind;
  object["payload"] = spec.payload;
  if (spec.taskSpace) object["task_space"] = *spec.taskSpace;
  return object;
}

}  // namespace

Jobs::Jobs(JobStore& store, FileStore& files, std::function<std::string()> baseUrl)
    : store_(store), files_(files), baseUrl_(std::move(baseUrl)) {}

std::int64_t Jobs::add(JobSpec spec) {
  const auto id = store_.reserveId();
  auto object = jobObject(id, spec);
  for (auto& file : spec.files) {
    ordered_json entry{{"name", file.name}};
    const auto sum = file.sha256 ? *file.sha256 : sha256Hex(file.content);
    const auto announced = file.url;
    const auto absolute = file.absoluteUrl;
    const auto omitUrl = file.omitUrl;
    const auto omitSha256 = file.omitSha256;
    const auto path = files_.add(std::move(file), id);
    if (!omitUrl) entry["url"] = announced ? *announced : (absolute ? baseUrl_() : "") + path;
    if (!omitSha256) entry["sha256"] = sum;
    object["files"].push_back(std::move(entry));
  }
  for (const auto& [key, value] : spec.extra.items()) object[key] = value;
  store_.add(id, spec, object);
  return id;
}

std::optional<JobSnapshot> Jobs::find(std::int64_t id) const { return store_.job(id); }

std::vector<JobSnapshot> Jobs::list() const { return store_.jobs(); }

std::vector<std::string> Jobs::lines(std::int64_t id, std::size_t from, std::size_t limit) const {
  const auto log = store_.lineLog(id);
  return log ? log->lines(from, limit) : std::vector<std::string>();
}

std::vector<LinesPost> Jobs::posts(std::int64_t id) const {
  const auto log = store_.lineLog(id);
  return log ? log->posts() : std::vector<LinesPost>();
}

bool Jobs::cancel(std::int64_t id) { return store_.cancel(id); }

void Jobs::setLease(Milliseconds lease) { store_.setLease(lease); }

bool Jobs::waitFor(std::int64_t id, JobState state, Milliseconds timeout) const {
  return waitFor(
      id,
      [state](const JobSnapshot& job) {
        return job.state == state || (state == JobState::leased && job.state == JobState::done);
      },
      timeout);
}

bool Jobs::waitFor(std::int64_t id, const std::function<bool(const JobSnapshot&)>& predicate,
                   Milliseconds timeout) const {
  const auto holds = [&] {
    const auto snapshot = find(id);
    return snapshot && predicate(*snapshot);
  };
  return store_.waitUntil(holds, deadlineAfter(timeout));
}

bool Jobs::waitForLine(std::int64_t id, const std::string& text, Milliseconds timeout) const {
  const auto log = store_.lineLog(id);
  std::size_t from = 0;
  return log && store_.waitUntil([&] { return log->contains(text, from); }, deadlineAfter(timeout));
}

bool Jobs::waitForAllDone(Milliseconds timeout) const {
  return store_.waitUntil([&] { return store_.allDone(); }, deadlineAfter(timeout));
}

}  // namespace verdo::local
