#include "VerdoDriverCore/Contract/DriverConfig.h"
#include "VerdoDriverCore/Contract/LogSink.h"
#include "VerdoDriverCore/Jobs/FileStager.h"
#include "VerdoDriverCore/Jobs/Job.h"
#include "VerdoDriverCore/Network/ReplyObject.h"
#include "VerdoDriverCore/Run/Hello.h"
#include "VerdoDriverCore/System/Sync.h"
#include "VerdoDriverCore/Values/PyError.h"
#include "fuzz/Targets.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <variant>

namespace verdo::fuzz {
namespace {

const std::string kToken = "driver-token";
const std::string kDirectory = "/cache/verdo-a\"b";

class Unread : public LogSink {
 public:
  void info(const std::string&) override {}
  void success(const std::string&) override {}
  void warn(const std::string&) override {}
  void error(const std::string&) override {}
};

std::optional<JsonReading> readReply(std::string_view bytes, bool mayBringDefect) {
  try {
    return readReplyObject(bytes, mayBringDefect);
  } catch (const PyError& error) {
    require(error.pyName() == "JSONDecodeError", "the log names the error");
    return std::nullopt;
  }
}

void checkHello(const JV& reply) {
  DriverConfig config("https://verdo.example", kToken);
  config.maxJobsCeiling = 7;
  const auto read = Hello::from(reply, config);
  if (const auto* reason = std::get_if<ExitReason>(&read)) {
    require(!reason->message().empty(), "an end has a reason");
    require(reason->message().find(kToken) == std::string::npos, "no message holds the token");
    return;
  }
  const auto& hello = std::get<Hello>(read);
  require(hello.maxJobs >= 1 && hello.maxJobs <= 7, "there are lanes, and not too many");
  for (const double seconds : {hello.idleClose, hello.reapInterval, hello.cleanupTimeout}) {
    require(seconds >= 1, "no interval is a moment");
    require(fromSeconds(seconds) >= std::chrono::seconds(1), "an interval is one");
  }
}

/// Places of placeholders looked for by trying every name everywhere.
std::string replaced(const std::string& payload, const std::map<std::string, std::string>& paths) {
  std::string out;
  for (std::size_t at = 0; at < payload.size();) {
    const std::string* path = nullptr;
    std::size_t length = 0;
    for (const auto& [name, text] : paths) {
      const std::string placeholder = "__VERDO_FILE__" + name + "__";
      if (payload.compare(at, placeholder.size(), placeholder) != 0) continue;
      if (placeholder.size() < length) continue;
      path = &text;
      length = placeholder.size();
    }
    out += path ? *path : payload.substr(at, 1);
    at += path ? length : 1;
  }
  return out;
}

void checkFiles(const Job& job) {
  Unread log;
  std::map<std::string, std::string> paths;
  std::set<std::string> taken;
  std::size_t count = 0;
  const auto download = [&](const std::string& url, const std::string& path) {
    const JobFile& file = job.files.at(count++);
    require(url == file.url, "files come in order");
    require(path.starts_with(kDirectory + "/"), "a file stays in its directory");
    std::string name = path.substr(kDirectory.size() + 1);
    require(!name.empty() && name != "." && name != ".." && name.size() <= 255 &&
                name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                       "0123456789._-") == std::string::npos,
            "a name is safe");
    std::transform(name.begin(), name.end(), name.begin(), [](char c) {
      return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    require(taken.insert(name).second, "no file takes another's place");
    paths.emplace(file.name, "\"/cache/verdo-a\\\"b/" + path.substr(kDirectory.size() + 1) + '"');
    return file.sha256.value_or("");
  };
  try {
    const std::string script = FileStager::stage(job, job.payload, download, log, kDirectory);
    require(script == replaced(job.payload, paths), "each placeholder becomes its path");
  } catch (const PyError& error) {
    require(error.pyName() == "KeyError", "a file wants a URL and a checksum");
  }
}

void checkJob(JsonReading reply) {
  JV object = reply.value.take("job");
  if (!object.asObject()) return;
  const auto job = Job::from(std::move(object));
  if (!job) return;
  require(!job->lane.empty() && !job->kind.empty(), "a job has a lane and a kind");
  require(!job->taskSpace || !job->taskSpace->empty(), "a task space has a name");
  if (job->files.size() < 50) checkFiles(*job);
}

}  // namespace

void service(std::string_view bytes) {
  const auto strict = readReply(bytes, false);
  auto tolerant = readReply(bytes, true);
  require(!strict || (tolerant && !strict->defect && tolerant->value == strict->value),
          "only a poll tolerates more");
  if (strict) {
    checkHello(strict->value);
    const LinesReply lines = LinesReply::from(strict->value);
    require(lines.ok || strict->value.find("ok"), "a job is ours unless the service says no");
  }
  if (tolerant) checkJob(*std::move(tolerant));
}

}  // namespace verdo::fuzz
