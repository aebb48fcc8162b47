#pragma once

#include "VerdoDriverCore/Values/JV.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace verdo {

/// One input file of a job. Absent members are missing keys, which staging reports.
struct JobFile {
  std::string name;  ///< as the service spells it; not safe as a file name
  std::optional<std::string> url;
  std::optional<std::string> sha256;  ///< lowercase hexadecimal

  /// Absent when the value is no object.
  static std::optional<JobFile> from(const JV& value);
};

/// One leased job, read tolerantly from the service's object. A plain value.
struct Job {
  std::int64_t id = 0;
  std::string label;  ///< empty when the service gave none
  std::string lane;   ///< the label, or "job-{id}": two jobs of a lane never run at once
  std::string kind;   ///< "llm" selects the provider, everything else the browser
  std::optional<std::string> taskSpace;
  std::string payload;
  std::vector<JobFile> files;
  /// The object's other members, for executors that need more keys. Those above have been moved
  /// out of it: a payload may be large, and is not kept twice.
  JV raw;

  /// Absent when "job_id" cannot be read. Takes the object apart.
  static std::optional<Job> from(JV&& object);
};

/// The service's reply to a lines post.
struct LinesReply {
  bool ok = true;                    ///< false: the job is no longer ours
  bool cancel = false;               ///< the service asks to cancel the job
  std::optional<std::string> state;  ///< the job's state, when the service named one

  static LinesReply from(const JV& object);
};

}  // namespace verdo
