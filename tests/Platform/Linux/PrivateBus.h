#pragma once

#include "tests/Support/Children.h"
#include "tests/Support/MainLoop.h"
#include "tests/Support/TempDir.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>

#include <unistd.h>

namespace verdo::test {

/// A message bus of its own in a home of its own.
class PrivateBus {
 public:
  /// `service` is the content of a service file, when the bus is to know one that it can start.
  explicit PrivateBus(const std::string& service = "") {
    home_.write("any.service", service);
    home_.write("bus.conf",
                "<busconfig><listen>" + address() + "</listen><servicedir>" + home() +
                    "</servicedir><policy context='default'><allow eavesdrop='true'/><allow "
                    "send_destination='*' eavesdrop='true'/><allow own='*'/></policy></busconfig>");
    startDaemon();
    connect();
  }
  ~PrivateBus() { QDBusConnection::disconnectFromBus(home().c_str()); }

  const std::string& home() const { return home_.path(); }
  std::string address() const { return "unix:path=" + home_ / "bus"; }
  void startDaemon() {
    daemon = start({"/usr/bin/dbus-daemon", "--config-file=" + home_ / "bus.conf", "--nofork",
                    "--print-address=1"});
    EXPECT_TRUE(CollectedLines(daemon->takeStdout()).start().waitForCount(1));
  }
  /// Also after a restart of the daemon.
  void connect() {
    QDBusConnection::disconnectFromBus(home().c_str());
    connection = QDBusConnection::connectToBus(address().c_str(), home().c_str());
  }
  /// Starts a program on this bus with this input.
  std::unique_ptr<ChildProcess> start(const std::vector<std::string>& argv,
                                      const std::string& input = "") const {
    auto env = currentEnvironment();
    env["HOME"] = env["XDG_RUNTIME_DIR"] = home();
    env["DBUS_SESSION_BUS_ADDRESS"] = env["DBUS_SYSTEM_BUS_ADDRESS"] = address();
    auto child = Spawn::launch(argv[0], argv, env, false);
    EXPECT_EQ(::write(child->takeStdin().get(), input.data(), input.size()), ssize_t(input.size()));
    return child;
  }
  bool waitForName(const char* name, bool owned = true) const {
    return spinUntil([&] { return connection.interface()->isServiceRegistered(name) == owned; });
  }
  /// Calls a method and gives what it answers.
  QVariant call(const char* service, const char* path, const char* interface, const char* method,
                const QVariantList& arguments = {}) const {
    auto message = QDBusMessage::createMethodCall(service, path, interface, method);
    message.setArguments(arguments);
    const auto reply = connection.call(message);
    EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    return reply.arguments().value(0);
  }

 private:
  TempDir home_;

 public:
  std::unique_ptr<ChildProcess> daemon;
  QDBusConnection connection{"none"};
};

}  // namespace verdo::test
