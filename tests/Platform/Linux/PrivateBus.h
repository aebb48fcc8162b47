#pragma once

#include "tests/Support/Children.h"
#include "tests/Support/MainLoop.h"
#include "tests/Support/TempDir.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

namespace verdo::test {

/// A message bus of its own in a home of its own. The bus and what is started on it end with it.
class PrivateBus {
 public:
  /// `services` is the content of a service file, when the bus is to know one that it can start.
  explicit PrivateBus(const std::string& service = "") {
    home_.write("any.service", service);
    const auto config = home_.write(
        "bus.conf",
        "<busconfig><listen>" + address() + "</listen><servicedir>" + home() +
            "</servicedir><policy context='default'><allow eavesdrop='true'/><allow "
            "send_destination='*' eavesdrop='true'/><allow own='*'/></policy></busconfig>");
    daemon_ = start({"/usr/bin/dbus-daemon", "--config-file=" + config, "--nofork", "--nopidfile",
                     "--print-address=1"});
    EXPECT_TRUE(CollectedLines(daemon_->takeStdout()).start().waitForCount(1));
    connection_ = std::make_unique<QDBusConnection>(
        QDBusConnection::connectToBus(QString::fromStdString(address()), connectionName()));
  }
  ~PrivateBus() { QDBusConnection::disconnectFromBus(connectionName()); }
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  const std::string& home() const { return home_.path(); }
  std::string address() const { return "unix:path=" + home_ / "bus"; }
  QDBusConnection& connection() { return *connection_; }
  ChildProcess& daemon() { return *daemon_; }

  /// Starts a program on this bus with this input.
  std::unique_ptr<ChildProcess> start(const std::vector<std::string>& argv,
                                      const std::string& input = "") const {
    auto env = currentEnvironment();
    env["HOME"] = env["XDG_RUNTIME_DIR"] = home();
    env["DBUS_SESSION_BUS_ADDRESS"] = env["DBUS_SYSTEM_BUS_ADDRESS"] = address();
    env.erase("XDG_DATA_HOME");
    auto child = Spawn::launch(argv[0], argv, env, false);
    const UniqueFd stdinEnd = child->takeStdin();
    EXPECT_EQ(::write(stdinEnd.get(), input.data(), input.size()), ssize_t(input.size()));
    return child;
  }
  bool waitForName(const char* name, bool owned = true) {
    return spinUntil(
        [&] { return connection_->interface()->isServiceRegistered(name).value() == owned; });
  }
  /// Calls a method and waits for its answer.
  QDBusMessage call(const char* service, const char* path, const char* interface,
                    const char* method, const QVariantList& arguments = {}) {
    auto message = QDBusMessage::createMethodCall(service, path, interface, method);
    message.setArguments(arguments);
    return connection_->call(message);
  }

 private:
  QString connectionName() const { return QString::fromStdString(home()); }

  TempDir home_;
  std::unique_ptr<ChildProcess> daemon_;
  std::unique_ptr<QDBusConnection> connection_;
};

}  // namespace verdo::test
