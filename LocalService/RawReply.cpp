#include "LocalService/RawReply.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include <strings.h>

namespace verdo::local {
namespace {

void addHeader(RawReply& reply, const std::string& name, const std::string& value) {
  reply.head += name + ": " + value + "\r\n";
}

RawReply begin(int status) {
  RawReply reply;
  reply.status = status;
  // The reason phrase may be empty; no client reads it.
  reply.head = "HTTP/1.1 " + std::to_string(status) + " \r\n";
  return reply;
}

RawReply end(RawReply reply, std::string body) {
  addHeader(reply, "Content-Length", std::to_string(body.size()));
  reply.head += "\r\n";
  reply.body = std::move(body);
  return reply;
}

}  // namespace

RawReply rawReply(const FaultReply& from) {
  auto reply = begin(from.status);
  for (const auto& [name, value] : from.headers) addHeader(reply, name, value);
  const bool typed = std::ranges::any_of(from.headers, [](const auto& header) {
    return strcasecmp(header.first.c_str(), "Content-Type") == 0;
  });
  if (!typed && !from.body.empty()) addHeader(reply, "Content-Type", "application/json");
  return end(std::move(reply), from.body);
}

RawReply rawReply(const httplib::Response& response) {
  auto reply = begin(response.status);
  for (const auto& [name, value] : response.headers) addHeader(reply, name, value);
  return end(std::move(reply), response.body);
}

void trickle(Connection& connection, std::string_view bytes, std::size_t bytesPerSecond) {
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  // 50 pieces a second, or as many as there are bytes when the pace is slower than that.
  const auto piece = std::max<std::size_t>(bytesPerSecond / 50, 1);
  for (std::size_t sent = 0; sent < bytes.size(); sent += piece) {
    if (!connection.send(bytes.substr(sent, piece))) return;
    const auto due =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
                    static_cast<double>(sent + piece) / static_cast<double>(bytesPerSecond)));
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now());
    if (left.count() > 0 && connection.wait(left) != Connection::Wake::timeout) return;
  }
}

}  // namespace verdo::local
