#include "VerdoDriverCore/Jobs/JobBody.h"

#include "VerdoDriverCore/Jobs/BrowserJob.h"
#include "VerdoDriverCore/Jobs/LLMJob.h"

#include <utility>

namespace verdo {

std::unique_ptr<JobBody> makeJobBody(Job& job, JobReporter& reporter) {
  std::string payload = std::exchange(job.payload, {});
  if (job.kind == "llm") return std::make_unique<LLMJob>(std::move(payload), reporter);
  // These two manage task spaces themselves.
  const bool ownsSpace = job.kind != "close" && job.kind != "list";
  return std::make_unique<BrowserJob>(std::move(payload), ownsSpace, reporter);
}

}  // namespace verdo
