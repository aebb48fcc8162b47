#include "VerdoDriverCore/Jobs/Job.h"

#include "VerdoDriverCore/Values/PyValue.h"

#include <utility>

namespace verdo {

std::optional<JobFile> JobFile::from(const JV& value) {
  if (!value.asObject()) return std::nullopt;
  return JobFile{pyStrIfTruthy(value.find("name")).value_or("file"),
                 pyStrIfTruthy(value.find("url")), pyStr(value.find("sha256"))};
}

std::optional<Job> Job::from(JV&& object) {
  const JV number = object.take("job_id");
  const auto id = pyInt(&number);
  if (!id) return std::nullopt;
  Job job;
  job.id = *id;
  job.label = pyStrIfTruthy(object.take("label")).value_or("");
  job.lane = job.label.empty() ? "job-" + std::to_string(job.id) : job.label;
  job.kind = pyStrIfTruthy(object.take("kind")).value_or("run");
  job.taskSpace = pyStrIfTruthy(object.take("task_space"));
  job.payload = pyStrIfTruthy(object.take("payload")).value_or("");
  const JV files = object.take("files");
  if (const auto* list = files.asArray()) {
    for (const JV& entry : *list) {
      if (auto file = JobFile::from(entry)) job.files.push_back(std::move(*file));
    }
  }
  job.raw = std::move(object);
  return job;
}

LinesReply LinesReply::from(const JV& object) {
  LinesReply reply;
  if (const JV* ok = object.find("ok")) reply.ok = pyTruthy(ok);
  reply.cancel = pyTruthy(object.find("cancel"));
  const JV* state = object.find("state");
  if (const auto* text = state ? state->asString() : nullptr) reply.state = *text;
  return reply;
}

}  // namespace verdo
