#include "VerdoDriver/App/ControlChannel.h"

#include "VerdoDriver/Platform/LocalPeer.h"

#include <QDir>
#include <QSocketNotifier>
#include <QTimer>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace verdo {
namespace {

/// Longer than any command.
constexpr std::size_t kMaxCommand = 64;
/// How long a caller may take for its command, so that none stays for ever.
constexpr std::chrono::seconds kCommandTimeout{5};
/// At a time. Others wait until one of these has its answer.
constexpr int kMaxCallers = 64;
/// Where no descriptor is left for a caller.
constexpr std::chrono::seconds kRest{1};
/// That have not been accepted yet.
constexpr int kMaxWaiting = 16;

/// A local socket, and the address of this path; no socket when the system refuses, with errno.
struct LocalSocket {
  explicit LocalSocket(const std::string& path) {
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
      errno = ENAMETOOLONG;
      return;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    fd = UniqueFd(::socket(AF_UNIX, SOCK_STREAM, 0));
    if (!fd) return;
    ::fcntl(fd.get(), F_SETFD, FD_CLOEXEC);
    LocalPeer::prepare(fd.get());
  }
  const sockaddr* generic() const { return reinterpret_cast<const sockaddr*>(&address); }

  sockaddr_un address{};
  UniqueFd fd;
};

std::string lockOf(const std::string& socketPath) { return socketPath + ".lock"; }

}  // namespace

/// One caller, until it has its answer.
class ControlServer::Caller : public QObject {
 public:
  Caller(UniqueFd fd, ControlServer* server)
      : QObject(server),
        server_(*server),
        fd_(std::move(fd)),
        readable_(fd_.get(), QSocketNotifier::Read),
        writable_(fd_.get(), QSocketNotifier::Write) {
    writable_.setEnabled(false);
    connect(&readable_, &QSocketNotifier::activated, this, &Caller::read);
    connect(&writable_, &QSocketNotifier::activated, this, &Caller::write);
    connect(&timer_, &QTimer::timeout, this, &Caller::end);
    timer_.start(kCommandTimeout);
  }

 private:
  void read() {
    char bytes[kMaxCommand];
    const ssize_t size = ::read(fd_.get(), bytes, sizeof bytes);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (size <= 0) return end();
    command_.append(bytes, static_cast<std::size_t>(size));
    const auto lineEnd = command_.find('\n');
    if (lineEnd != command_.npos) {
      readable_.setEnabled(false);
      reply_ = server_.answer(command_.substr(0, lineEnd)) + "\n";
      write();
    } else if (command_.size() > kMaxCommand) {
      end();
    }
  }
  /// What a service has said may be longer than the system takes at once.
  void write() {
    const ssize_t size = LocalPeer::send(fd_.get(), reply_);
    if (size < 0 && errno != EAGAIN && errno != EINTR) return end();
    reply_.erase(0, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    if (reply_.empty()) return end();
    writable_.setEnabled(true);
  }
  void end() {
    readable_.setEnabled(false);
    writable_.setEnabled(false);
    timer_.stop();
    deleteLater();
    server_.ended();
  }

  ControlServer& server_;
  const UniqueFd fd_;
  QSocketNotifier readable_;
  QSocketNotifier writable_;
  QTimer timer_;
  std::string command_;
  std::string reply_;  ///< what is still to be sent
};

std::string controlSocketPath() {
  const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
  auto path = (runtime + "/verdo-driver-app.socket").toStdString();
  // The base directory rules have relative paths ignored.
  if (runtime.startsWith('/') && QDir(runtime).exists() &&
      path.size() < sizeof sockaddr_un().sun_path) {
    return path;
  }
  return fmt::format("{}/verdo-driver-app-{}.socket", QDir::tempPath().toStdString(), ::getuid());
}

std::optional<std::string> askRunningApp(const std::string& socketPath, const std::string& command,
                                         std::chrono::milliseconds timeout) {
  const LocalSocket socket(socketPath);
  if (!socket.fd) return std::nullopt;
  const timeval limit{static_cast<time_t>(timeout.count() / 1000),
                      static_cast<suseconds_t>(timeout.count() % 1000 * 1000)};
  for (const int option : {SO_SNDTIMEO, SO_RCVTIMEO}) {
    ::setsockopt(socket.fd.get(), SOL_SOCKET, option, &limit, sizeof limit);
  }
  const std::string line = command + "\n";
  if (::connect(socket.fd.get(), socket.generic(), sizeof socket.address) != 0 ||
      !LocalPeer::isOwn(socket.fd.get()) ||  // no other user's socket can pose as the app's
      LocalPeer::send(socket.fd.get(), line) != static_cast<ssize_t>(line.size())) {
    return std::nullopt;
  }
  std::string reply;
  while (!reply.ends_with('\n')) {
    char bytes[4096];
    const ssize_t size = ::read(socket.fd.get(), bytes, sizeof bytes);
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) return std::nullopt;
    reply.append(bytes, static_cast<std::size_t>(size));
  }
  reply.pop_back();
  return reply;
}

bool isAppAlive(const std::string& socketPath) {
  const UniqueFd lock(::open(lockOf(socketPath).c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
  return lock && ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

ControlServer::ControlServer() = default;
ControlServer::~ControlServer() = default;

void ControlServer::handle(const std::string& command, Handler handler) {
  handlers_[command] = std::move(handler);
}

bool ControlServer::listen(const std::string& socketPath) {
  const auto failed = [this](const std::string& path) {
    error_ = fmt::format("{}: {}", path, std::generic_category().message(errno));
    lock_.reset();  // or we would be taken for an app that runs
    return false;
  };
  const std::string lockPath = lockOf(socketPath);
  lock_ = UniqueFd(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock_ || ::flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) return failed(lockPath);
  ::unlink(socketPath.c_str());
  LocalSocket socket(socketPath);
  if (!socket.fd) return failed(socketPath);
  const mode_t before = ::umask(0177);  // only this user may connect
  const bool isBound = ::bind(socket.fd.get(), socket.generic(), sizeof socket.address) == 0;
  ::umask(before);
  if (!isBound || ::listen(socket.fd.get(), kMaxWaiting) != 0) return failed(socketPath);
  setNonBlocking(socket.fd.get());
  socket_ = std::move(socket.fd);
  notifier_ = std::make_unique<QSocketNotifier>(socket_.get(), QSocketNotifier::Read);
  connect(notifier_.get(), &QSocketNotifier::activated, this, &ControlServer::accept);
  return true;
}

void ControlServer::accept() {
  while (callers_ < kMaxCallers) {
    UniqueFd caller(::accept(socket_.get(), nullptr, nullptr));
    if (!caller) {
      if (errno == EMFILE || errno == ENFILE) rest();
      return;
    }
    ::fcntl(caller.get(), F_SETFD, FD_CLOEXEC);
    setNonBlocking(caller.get());
    LocalPeer::prepare(caller.get());
    new Caller(std::move(caller), this);
    ++callers_;
  }
  notifier_->setEnabled(false);
}

/// A caller that cannot be accepted would be told of again at once.
void ControlServer::rest() {
  notifier_->setEnabled(false);
  QTimer::singleShot(kRest, this, [this] { notifier_->setEnabled(callers_ < kMaxCallers); });
}

void ControlServer::ended() {
  --callers_;
  notifier_->setEnabled(true);
}

std::string ControlServer::answer(const std::string& command) const {
  const auto found = handlers_.find(command);
  return found == handlers_.end() ? "unknown command" : found->second();
}

}  // namespace verdo
