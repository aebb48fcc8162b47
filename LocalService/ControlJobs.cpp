#include "LocalService/ControlJobs.h"

#include "LocalService/ControlJson.h"

#include <utility>

namespace verdo::local {

using nlohmann::ordered_json;

bool ControlJobs::serve(Exchange& exchange, const std::vector<std::string>& words) const {
  const auto& method = exchange.request.method;
  if (words.size() > 1) return one(exchange, words);
  if (method == "POST") {
    const auto id = jobs_.add(readJob(parseJson(exchange.request.body), files_));
    replyJson(exchange.response, {{"id", id}});
    return true;
  }
  if (method != "GET") return false;
  auto list = ordered_json::array();
  for (const auto& job : jobs_.list()) list.push_back(toJson(job));
  replyJson(exchange.response, {{"jobs", std::move(list)}});
  return true;
}

ordered_json ControlJobs::known(std::int64_t id) const {
  const auto job = jobs_.find(id);
  if (!job) throw HttpError(404, "there is no job " + std::to_string(id));
  return toJson(*job);
}

bool ControlJobs::one(Exchange& exchange, const std::vector<std::string>& words) const {
  const auto id = parseInteger(words[1]);
  if (!id) throw HttpError(400, "the job identifier in the address must be an integer");
  auto job = known(*id);
  const auto& method = exchange.request.method;
  const std::string action = words.size() == 3 ? words[2] : "";
  if (words.size() == 2 && method == "GET") {
    replyJson(exchange.response, job);
  } else if (action == "lines" && method == "GET") {
    lines(exchange, *id);
  } else if (action == "wait" && method == "GET") {
    wait(exchange, *id);
  } else if (action == "cancel" && method == "POST") {
    replyJson(exchange.response, {{"cancelled", jobs_.cancel(*id)}});
  } else {
    return false;
  }
  return true;
}

void ControlJobs::lines(Exchange& exchange, std::int64_t id) const {
  const auto from = static_cast<std::size_t>(queryNumber(exchange.request, "from", 0, 1e15));
  const auto wait = queryWait(exchange.request, "wait", 0);
  constexpr std::size_t mostAtOnce = 10'000;
  std::vector<std::string> lines;
  jobs_.waitFor(
      id,
      [&](const JobSnapshot& job) {
        lines = jobs_.lines(id, from, mostAtOnce);
        return !lines.empty() || job.state == JobState::done;
      },
      wait);
  const auto job = known(id);
  replyJson(
      exchange.response,
      {{"from", from}, {"next", from + lines.size()}, {"lines", lines}, {"state", job["state"]}});
}

void ControlJobs::wait(Exchange& exchange, std::int64_t id) const {
  const auto what =
      exchange.request.has_param("for") ? exchange.request.get_param_value("for") : "done";
  if (what != "leased" && what != "lines" && what != "done") {
    throw HttpError(400, "\"for\" must be leased, lines or done, not \"" + what + "\"");
  }
  const auto reached = jobs_.waitFor(
      id,
      [&](const JobSnapshot& job) {
        if (job.state == JobState::done) return true;
        return what == "leased" ? job.timesLeased > 0 : what == "lines" && job.lineCount > 0;
      },
      queryWait(exchange.request, "timeout", 30));
  replyJson(exchange.response, {{"reached", reached}, {"job", known(id)}});
}

}  // namespace verdo::local
