#include "LocalService/Routes.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace verdo::local {
namespace {

constexpr int kMaxDepth = 100;
constexpr double kMaxWait = 600;  // seconds

}  // namespace

void replyJson(httplib::Response& response, const nlohmann::ordered_json& value, int status) {
  response.status = status;
  // Text taken from requests may hold any bytes; the log of them must still be JSON.
  response.set_content(value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace),
                       "application/json");
}

nlohmann::ordered_json parseJson(std::string_view text) {
  using Json = nlohmann::ordered_json;
  const auto limitDepth = [](int depth, Json::parse_event_t event, Json&) {
    const bool opens =
        event == Json::parse_event_t::object_start || event == Json::parse_event_t::array_start;
    if (opens && depth > kMaxDepth) throw HttpError(400, "the JSON body is nested too deeply");
    return true;
  };
  try {
    return Json::parse(text, limitDepth);
  } catch (const Json::exception& error) {
    throw HttpError(400, std::string("the body is not valid JSON: ") + error.what());
  }
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

double queryNumber(const httplib::Request& request, const std::string& name, double fallback,
                   double most) {
  if (!request.has_param(name)) return fallback;
  const auto text = request.get_param_value(name);
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || !(value >= 0)) {
    throw HttpError(400, "\"" + name + "\" must be a number of at least 0, not \"" + text + "\"");
  }
  return std::min(value, most);
}

std::chrono::milliseconds queryWait(const httplib::Request& request, const std::string& name,
                                    double fallback) {
  return std::chrono::milliseconds(
      static_cast<std::int64_t>(queryNumber(request, name, fallback, kMaxWait) * 1000));
}

}  // namespace verdo::local
