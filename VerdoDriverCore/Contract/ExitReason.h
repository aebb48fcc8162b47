#pragma once

#include <cstdint>
#include <string>

namespace verdo {

/// How a driver run ended. A plain value; two reasons are equal when kind and message are.
class ExitReason {
 public:
  /// The values are the process exit codes, which scripts around the driver rely on.
  enum class Kind : std::int32_t {
    clean = 0,
    serverUnreachable = 1,
    badConfig = 2,
    tokenRevoked = 3,
    outOfDate = 6,
    llmKeyRejected = 7,
    noExecutor = 127,
    stopped = 130,
  };

  static ExitReason serverUnreachable(std::string message) {
    return {Kind::serverUnreachable, std::move(message)};
  }
  static ExitReason badConfig(std::string message) { return {Kind::badConfig, std::move(message)}; }
  static ExitReason tokenRevoked(std::string message) {
    return {Kind::tokenRevoked, std::move(message)};
  }
  static ExitReason outOfDate(std::string message) { return {Kind::outOfDate, std::move(message)}; }
  static ExitReason llmKeyRejected(std::string message) {
    return {Kind::llmKeyRejected, std::move(message)};
  }
  static ExitReason noExecutor(std::string message) {
    return {Kind::noExecutor, std::move(message)};
  }
  static ExitReason clean() { return {Kind::clean, {}}; }
  static ExitReason stopped() { return {Kind::stopped, {}}; }

  Kind kind() const { return kind_; }
  std::int32_t code() const { return static_cast<std::int32_t>(kind_); }
  /// What went wrong, for a person; empty for clean and stopped.
  const std::string& message() const { return message_; }

  bool operator==(const ExitReason&) const = default;

 private:
  ExitReason(Kind kind, std::string message) : kind_(kind), message_(std::move(message)) {}

  Kind kind_;
  std::string message_;
};

}  // namespace verdo
