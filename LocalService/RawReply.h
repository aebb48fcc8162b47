#pragma once

#include "LocalService/Connection.h"
#include "LocalService/Fault.h"

#include <cstddef>
#include <string>
#include <string_view>

#include <httplib.h>

namespace verdo::local {

/// A reply as bytes, for those that must leave in unusual ways.
struct RawReply {
  int status = 200;
  std::string head;  ///< status line and headers, the empty line included
  std::string body;
};

RawReply rawReply(const FaultReply& reply);
RawReply rawReply(const httplib::Response& response);

/// Sends at the given pace until all is sent, the client goes away, or the service stops.
void trickle(Connection& connection, std::string_view bytes, std::size_t bytesPerSecond);

}  // namespace verdo::local
