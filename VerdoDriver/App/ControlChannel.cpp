#include "VerdoDriver/App/ControlChannel.h"

#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QTimer>
#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

namespace verdo {
namespace {

/// Longer than any command.
constexpr qint64 kMaxCommand = 64;
/// How long a caller may take for its command, so that none stays for ever.
constexpr int kCommandTimeout = 5000;  // milliseconds

}  // namespace

std::string controlSocketPath() {
  const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
  if (QDir(runtime).exists() && !runtime.isEmpty()) {
    return (runtime + "/verdo-driver-app.socket").toStdString();
  }
  return fmt::format("{}/verdo-driver-app-{}.socket", QDir::tempPath().toStdString(), ::getuid());
}

std::optional<std::string> askRunningApp(const std::string& socketPath, const std::string& command,
                                         int timeoutMilliseconds) {
  QLocalSocket socket;
  socket.connectToServer(QString::fromStdString(socketPath));
  if (!socket.waitForConnected(timeoutMilliseconds)) return std::nullopt;
  socket.write(QByteArray::fromStdString(command + "\n"));
  QByteArray reply;
  while (!reply.endsWith('\n')) {
    if (!socket.waitForReadyRead(timeoutMilliseconds)) return std::nullopt;
    reply += socket.readAll();
  }
  reply.chop(1);
  return reply.toStdString();
}

ControlServer::ControlServer() : server_(std::make_unique<QLocalServer>()) {
  server_->setSocketOptions(QLocalServer::UserAccessOption);
  connect(server_.get(), &QLocalServer::newConnection, this, &ControlServer::accept);
}

ControlServer::~ControlServer() = default;

void ControlServer::handle(const std::string& command, Handler handler) {
  handlers_[command] = std::move(handler);
}

bool ControlServer::listen(const std::string& socketPath) {
  const std::string lockPath = socketPath + ".lock";
  lock_ = UniqueFd(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock_ || ::flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
    error_ = fmt::format("{}: {}", lockPath, std::generic_category().message(errno));
    return false;
  }
  const QString path = QString::fromStdString(socketPath);
  QLocalServer::removeServer(path);
  if (server_->listen(path)) return true;
  error_ = server_->errorString().toStdString();
  return false;
}

void ControlServer::accept() {
  while (QLocalSocket* socket = server_->nextPendingConnection()) {
    connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
    QTimer::singleShot(kCommandTimeout, socket, [socket] { socket->abort(); });
    connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
      if (!socket->canReadLine()) {
        if (socket->bytesAvailable() > kMaxCommand) socket->abort();
        return;
      }
      const auto command = socket->readLine(kMaxCommand).trimmed().toStdString();
      socket->write(QByteArray::fromStdString(answer(command) + "\n"));
      socket->flush();
      socket->disconnectFromServer();
    });
  }
}

std::string ControlServer::answer(const std::string& command) const {
  const auto found = handlers_.find(command);
  return found == handlers_.end() ? "unknown command" : found->second();
}

}  // namespace verdo
