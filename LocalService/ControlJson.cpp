#include "LocalService/ControlJson.h"

#include "LocalService/Base64.h"
#include "LocalService/ObjectReader.h"
#include "LocalService/PairingStore.h"
#include "LocalService/Routes.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

namespace verdo::local {
namespace {

using nlohmann::ordered_json;

constexpr std::array<std::pair<Delivery, const char*>, 6> kDeliveries{{
    {Delivery::whole, "whole"},
    {Delivery::truncated, "truncated"},
    {Delivery::trickled, "trickled"},
    {Delivery::reset, "reset"},
    {Delivery::close, "close"},
    {Delivery::garbage, "garbage"},
}};

ordered_json toMilliseconds(std::optional<std::chrono::steady_clock::time_point> time) {
  if (!time) return nullptr;
  using Double = std::chrono::duration<double, std::milli>;
  // Fixed once, so that differences between the times of a reply are exact.
  static const auto epoch = Double(std::chrono::system_clock::now().time_since_epoch()) -
                            Double(std::chrono::steady_clock::now().time_since_epoch());
  return (epoch + Double(time->time_since_epoch())).count();
}

std::string masked(const std::string& value) {
  constexpr std::string_view bearer = "Bearer ";
  if (!value.starts_with(bearer)) return value;
  const auto shown = value.size() >= bearer.size() + 8 ? value.substr(value.size() - 4) : "";
  return std::string(bearer) + "····" + shown;
}

ordered_json headerList(const std::vector<std::pair<std::string, std::string>>& headers) {
  auto list = ordered_json::array();
  for (const auto& [name, value] : headers) list.push_back({name, masked(value)});
  return list;
}

std::string textOrJson(const ordered_json& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

void readHeaders(const ordered_json& json, FaultReply& reply) {
  for (const auto& [key, value] : json.items()) {
    if (!value.is_string()) throw HttpError(400, "a fault: every header must be a text");
    reply.headers.emplace_back(key, value.get<std::string>());
  }
}

}  // namespace

FileSpec readFile(const ordered_json& json, const FileStore& files) {
  const ObjectReader reader(json, "a file");
  FileSpec file;
  reader.refuseOthers({"name", "content", "content_base64", "path", "sha256", "url", "redirect",
                       "truncate_after", "status", "absolute_url", "omit_url", "omit_sha256"});
  if (!reader.has("name")) throw HttpError(400, "a file needs a \"name\"");
  reader.text("name", file.name);
  reader.text("content", file.content);
  if (reader.has("content_base64")) {
    reader.text("content_base64", file.content);
    auto content = decodeBase64(file.content);
    if (!content) throw HttpError(400, "a file's \"content_base64\" is not valid base64");
    file.content = std::move(*content);
  }
  if (reader.has("path")) {
    std::string path;
    reader.text("path", path);
    // Anyone on this machine may call the control interface: it opens no other folder to them.
    auto content = files.readFromDirectory(path);
    if (!content) {
      throw HttpError(400,
                      "a file's \"path\" must name a file directly in the folder given with "
                      "--files, and \"" +
                          path + "\" does not");
    }
    file.content = std::move(*content);
  }
  reader.text("sha256", file.sha256);
  reader.text("url", file.url);
  reader.text("redirect", file.redirect);
  reader.count("truncate_after", file.truncateAfter);
  reader.count("status", file.status);
  if (file.status < 200 || file.status > 599) {
    throw HttpError(400, "a file's \"status\" must be from 200 to 599");
  }
  reader.flag("absolute_url", file.absoluteUrl);
  reader.flag("omit_url", file.omitUrl);
  reader.flag("omit_sha256", file.omitSha256);
  return file;
}

JobSpec readJob(const ordered_json& json, const FileStore& files) {
  const ObjectReader reader(json, "a job");
  JobSpec job;
  reader.flag("keep_lines", job.keepLines);
  reader.flag("cancelled", job.cancelled);
  if (const auto* list = reader.find("files", &ordered_json::is_array, "a list of files")) {
    for (const auto& file : *list) job.files.push_back(readFile(file, files));
  }
  for (const auto& [key, value] : json.items()) {
    if (key != "keep_lines" && key != "cancelled" && key != "files") job.extra[key] = value;
  }
  const auto kind = json.find("kind");
  if (kind != json.end() && kind->is_string()) job.kind = kind->get<std::string>();
  return job;
}

Fault readFault(const ordered_json& json) {
  const ObjectReader reader(json, "a fault");
  Fault fault;
  reader.refuseOthers({"endpoint", "job_id", "after", "count", "probability", "body_over",
                       "delay_ms", "status", "body", "headers", "delivery", "truncate_after",
                       "bytes_per_second", "garbage", "processed"});
  reader.text("endpoint", fault.endpoint);
  reader.count("job_id", fault.jobId);
  reader.count("after", fault.after);
  reader.count("count", fault.count);
  reader.number("probability", fault.probability);
  reader.count("body_over", fault.bodyOver);
  reader.delay("delay_ms", fault.delay);
  if (reader.has("status") || reader.has("body") || reader.has("headers")) {
    auto& reply = fault.reply.emplace();
    reader.count("status", reply.status);
    if (reader.has("body")) reply.body = textOrJson(json["body"]);
    if (const auto* headers = reader.find("headers", &ordered_json::is_object, "an object")) {
      readHeaders(*headers, reply);
    }
  }
  std::string delivery = "whole";
  reader.text("delivery", delivery);
  const auto* const named = std::ranges::find_if(
      kDeliveries, [&](const auto& entry) { return entry.second == delivery; });
  if (named == kDeliveries.end()) {
    throw HttpError(400,
                    "a fault: \"delivery\" must be whole, truncated, trickled, reset, close or "
                    "garbage, not \"" +
                        delivery + "\"");
  }
  fault.delivery = named->first;
  reader.count("truncate_after", fault.truncateAfter);
  reader.count("bytes_per_second", fault.bytesPerSecond);
  reader.text("garbage", fault.garbage);
  reader.flag("processed", fault.processed);
  return fault;
}

ProviderRule readProviderRule(const ordered_json& json) {
  const ObjectReader reader(json, "a provider rule");
  ProviderRule rule;
  reader.refuseOthers({"match", "count", "delay_ms", "never", "keep_alive_ms", "until_close",
                       "status", "body", "content", "model", "finish_reason", "usage", "omit"});
  reader.text("match", rule.match);
  reader.count("count", rule.count);
  reader.delay("delay_ms", rule.delay);
  reader.flag("never", rule.never);
  reader.delay("keep_alive_ms", rule.keepAlive);
  reader.flag("until_close", rule.untilClose);
  reader.count("status", rule.status);
  if (reader.has("body")) rule.body = textOrJson(json["body"]);
  reader.text("content", rule.content);
  reader.text("model", rule.model);
  if (reader.has("finish_reason") && json["finish_reason"].is_null()) {
    rule.finishReason.reset();
  } else {
    reader.text("finish_reason", rule.finishReason);
  }
  if (reader.has("usage")) rule.usage = json["usage"];
  if (const auto* keys = reader.find("omit", &ordered_json::is_array, "a list of keys")) {
    for (const auto& key : *keys) rule.omit.push_back(textOrJson(key));
  }
  return rule;
}

PairingRules readPairingRules(const ordered_json& json) {
  const ObjectReader reader(json, "pairing rules");
  PairingRules rules;
  reader.refuseOthers({"expires_in", "interval", "username"});
  reader.seconds("expires_in", rules.expiresIn);
  reader.seconds("interval", rules.interval);
  reader.text("username", rules.username);
  return rules;
}

const char* toText(JobState state) {
  switch (state) {
    case JobState::queued:
      return "queued";
    case JobState::leased:
      return "leased";
    case JobState::done:
      break;
  }
  return "done";
}

ordered_json toJson(const JobSnapshot& job) {
  ordered_json json{{"id", job.id},
                    {"lane", job.lane},
                    {"kind", job.kind},
                    {"state", toText(job.state)},
                    {"cancelled", job.cancelled},
                    {"times_leased", job.timesLeased},
                    {"lines_posts", job.linesPosts},
                    {"line_count", job.lineCount},
                    {"line_bytes", job.lineBytes},
                    {"lines_sha256", job.linesSha256},
                    {"completed", job.completed},
                    {"complete_posts", job.completePosts}};
  json["exit_code"] = job.exitCode ? ordered_json(*job.exitCode) : ordered_json();
  json["error"] = job.error ? ordered_json(*job.error) : ordered_json();
  json["created_ms"] = toMilliseconds(job.created);
  json["leased_ms"] = toMilliseconds(job.leased);
  json["acknowledged_ms"] = toMilliseconds(job.acknowledged);
  json["first_line_ms"] = toMilliseconds(job.firstLine);
  json["last_line_ms"] = toMilliseconds(job.lastLine);
  json["finished_ms"] = toMilliseconds(job.finished);
  return json;
}

ordered_json toJson(const FaultStatus& status) {
  const auto& fault = status.fault;
  ordered_json json{{"id", status.id}, {"hits", status.hits}, {"endpoint", fault.endpoint}};
  if (fault.jobId) json["job_id"] = *fault.jobId;
  json["after"] = fault.after;
  if (fault.count) json["count"] = *fault.count;
  json["probability"] = fault.probability;
  if (fault.bodyOver) json["body_over"] = *fault.bodyOver;
  json["delay_ms"] = fault.delay.count();
  if (fault.reply) json["status"] = fault.reply->status;
  json["delivery"] =
      std::ranges::find(kDeliveries, fault.delivery, &std::pair<Delivery, const char*>::first)
          ->second;
  json["processed"] = fault.processed;
  return json;
}

ordered_json toJson(const ProviderRuleStatus& status) {
  const auto& rule = status.rule;
  ordered_json json{{"id", status.id}, {"hits", status.hits}, {"match", rule.match}};
  if (rule.count) json["count"] = *rule.count;
  json["delay_ms"] = rule.delay.count();
  json["never"] = rule.never;
  json["keep_alive_ms"] = rule.keepAlive.count();
  json["status"] = rule.status;
  if (rule.body) json["body_size"] = rule.body->size();
  if (rule.content) json["content_size"] = rule.content->size();
  if (rule.model) json["model"] = *rule.model;
  return json;
}

ordered_json toJson(const PairingSnapshot& pairing) {
  return {{"user_code", pairing.userCode},
          {"verify_path", pairing.verifyPath},
          {"host", pairing.host},
          {"state", toText(pairing.state)}};
}

ordered_json toJson(const RequestRecord& request) {
  ordered_json json{{"sequence", request.sequence},
                    {"endpoint", request.endpoint},
                    {"method", request.method},
                    {"target", request.target},
                    {"headers", headerList(request.headers)},
                    {"body", request.body},
                    {"body_size", request.bodySize}};
  if (request.jobId) json["job_id"] = *request.jobId;
  json["connection"] = request.connection;
  json["peer_port"] = request.peerPort;
  json["arrived_ms"] = toMilliseconds(request.arrived);
  json["replied_ms"] = toMilliseconds(request.replied);
  json["status"] = request.status;
  json["hung_up_ms"] = toMilliseconds(request.hungUp);
  if (request.fault) json["fault"] = *request.fault;
  return json;
}

}  // namespace verdo::local
