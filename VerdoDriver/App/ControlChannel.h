#pragma once

#include "VerdoDriverCore/System/UniqueFd.h"

#include <QObject>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

class QSocketNotifier;

namespace verdo {

/// How a second start of the app, or a script, speaks to the one that runs: one line with a command
/// to a local socket that only this user can reach, and one line back.

/// The socket's path: in the user's runtime directory, else (also where its path is too long for a
/// socket's) in the temporary one under a name with the user's id.
std::string controlSocketPath();

constexpr std::chrono::seconds kAnswerTimeout{3};

/// Asks the running app. Absent when none runs, or none answers within the time. Needs no
/// application object, and no display.
std::optional<std::string> askRunningApp(const std::string& socketPath, const std::string& command,
                                         std::chrono::milliseconds timeout = kAnswerTimeout);

/// Whether an app holds the socket, be it that it does not answer.
bool isAppAlive(const std::string& socketPath);

/// The running app's end. Main thread only.
class ControlServer : public QObject {
 public:
  using Handler = std::function<std::string()>;

  ControlServer();
  ~ControlServer() override;

  /// Answers `command` with what the handler gives, one line without its end.
  void handle(const std::string& command, Handler handler);
  /// Listens at the path, for which it holds a lock beside it: the first of two apps that start at
  /// once has it, and one that was killed leaves nothing in the way. False when another app listens
  /// there, or `error()` says why not.
  bool listen(const std::string& socketPath);
  const std::string& error() const { return error_; }

 private:
  class Caller;

  void accept();
  void rest();
  void ended();
  std::string answer(const std::string& command) const;

  UniqueFd lock_;
  UniqueFd socket_;
  std::unique_ptr<QSocketNotifier> notifier_;
  int callers_ = 0;
  std::map<std::string, Handler> handlers_;
  std::string error_;
};

}  // namespace verdo
