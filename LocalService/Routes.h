#pragma once

#include "LocalService/Connection.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <httplib.h>
#include <nlohmann/json.hpp>

namespace verdo::local {

/// One request on its way through a route's handler. Lives on the stack of the thread that serves
/// the connection.
struct Exchange {
  const httplib::Request& request;  ///< `path` has moved to the member below
  const std::string& path;          ///< percent-decoded, without the query
  httplib::Response& response;
  Connection& connection;

  std::uint64_t number = 0;  ///< in the request log; 0: it is not there

  // Set by the handler.

  bool abandoned = false;  ///< nothing is answered; the connection ends
  /// Undoes the request's effect. Called when the client turns out to be gone before it could have
  /// got the reply.
  std::function<void()> undo;
  std::optional<std::size_t> truncateAfter;  ///< the reply's body breaks off after so many bytes
  /// Sends the reply in its own time through the connection, which it takes over, unless a fault
  /// shapes the reply: then `response` stands for it. False: the client is gone.
  std::function<bool()> stream;
  /// Called after the reply was sent, whatever became of it.
  std::function<void()> afterReply;
};

struct Route {
  std::string endpoint;               ///< name for faults and the request log
  std::optional<std::int64_t> jobId;  ///< the job that the path names
  std::function<void(Exchange&)> handle;
  /// Faults and outages apply to it and it is logged; false for the control interface.
  bool observed = true;
};

/// The routes of one concern. Called by many threads at once; both the group and the handlers that
/// it gives must cope with that.
class RouteGroup {
 public:
  virtual ~RouteGroup() = default;
  /// Absent: not an address of this group.
  virtual std::optional<Route> match(std::string_view method, std::string_view path) = 0;
};

/// A failure with the HTTP status that says it; a handler may throw it. Becomes the reply
/// {"error": message}.
class HttpError : public std::runtime_error {
 public:
  HttpError(int status, const std::string& message)
      : std::runtime_error(message), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

void replyJson(httplib::Response& response, const nlohmann::ordered_json& value, int status = 200);

/// Parses a JSON text. Throws HttpError 400 with what is wrong and where, also for nesting deeper
/// than 100 (no message needs it, and writing deep values out again recurses).
nlohmann::ordered_json parseJson(std::string_view text);

/// Whole text as an integer, or absent.
std::optional<std::int64_t> parseInteger(std::string_view text);

/// A number in the query of the address, at most `most`; `fallback` when absent. Throws HttpError
/// 400 when it is no number or negative.
double queryNumber(const httplib::Request& request, const std::string& name, double fallback,
                   double most);

/// The same as a time to wait in seconds, at most ten minutes.
std::chrono::milliseconds queryWait(const httplib::Request& request, const std::string& name,
                                    double fallback);

}  // namespace verdo::local
