#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace verdo::local {

// NOLINTBEGIN(readability-redundant-member-init): lets callers name only the fields they set.

/// A file that the service hands out under /files/. A plain value.
struct FileSpec {
  std::string name{};     ///< the name that the job gives it
  std::string content{};  ///< its bytes

  // The rest misleads the driver, for tests.

  std::optional<std::string> sha256{};         ///< announced in place of the true checksum
  std::optional<std::string> url{};            ///< announced in place of the file's own address
  std::optional<std::string> redirect{};       ///< the address answers 302 with this Location
  std::optional<std::size_t> truncateAfter{};  ///< the reply breaks off after so many bytes
  int status = 200;                            ///< any other: this status with `content` as body
  bool absoluteUrl = false;                    ///< announce http://127.0.0.1:PORT/files/…
  bool omitUrl = false;                        ///< announce no "url" at all
  bool omitSha256 = false;                     ///< announce no "sha256" at all
};

/// A job to be queued. A plain value.
struct JobSpec {
  std::string label{};  ///< its lane; empty: no "label" key, the lane is job-{id}
  std::string kind = "run";
  std::string payload{};
  std::optional<std::string> taskSpace{};
  std::vector<FileSpec> files{};
  /// A JSON object whose keys are set in the job object last, whatever they are: further keys,
  /// or odd types for the known ones ({"job_id": "42"}).
  nlohmann::ordered_json extra = nlohmann::ordered_json::object();
  bool keepLines = true;   ///< false: lines are counted and hashed but not stored
  bool cancelled = false;  ///< handed out as usual, and the first reply already says cancel
};

// NOLINTEND(readability-redundant-member-init)

/// Where a job is in its life.
enum class JobState {
  queued,  ///< waiting for a driver; also again after its lease ran out
  leased,  ///< a driver has it
  done,    ///< completed, or cancelled before (or without) being run
};

/// What is known of one job at one moment. A plain value.
struct JobSnapshot {
  using Time = std::chrono::steady_clock::time_point;

  std::int64_t id = 0;
  std::string lane;
  std::string kind;
  JobState state = JobState::queued;
  bool cancelled = false;
  std::uint64_t timesLeased = 0;  ///< how often it was handed out; put-back replies not counted
  std::uint64_t linesPosts = 0;   ///< lines posts answered ok, empty ones included
  std::uint64_t lineCount = 0;
  std::uint64_t lineBytes = 0;  ///< UTF-8 bytes of all lines, line ends not counted
  /// SHA-256, in lowercase hexadecimal, over every line followed by "\n", in order of arrival.
  std::string linesSha256;
  bool completed = false;                ///< a completion record was accepted
  std::uint64_t completePosts = 0;       ///< completion posts, refused ones included
  std::optional<std::int64_t> exitCode;  ///< of the completion record
  std::optional<std::string> error;      ///< of the completion record; absent: null

  Time created;
  std::optional<Time> leased;        ///< the latest lease
  std::optional<Time> acknowledged;  ///< the first lines post after the latest lease
  std::optional<Time> firstLine;     ///< the first post that brought a line
  std::optional<Time> lastLine;      ///< the latest post that brought a line
  std::optional<Time> finished;      ///< the state became done
};

}  // namespace verdo::local
