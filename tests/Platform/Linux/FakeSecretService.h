#pragma once

#include "tests/Platform/Linux/PrivateBus.h"

#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusVirtualObject>
#include <map>
#include <set>

namespace verdo::test {

/// A Secret Service that behaves as the test says, with one collection. It lets each connection at
/// an item only after a prompt, but for the one that has made it. Lives on the main thread, whose
/// events have to run while it is asked.
class FakeSecretService : public QDBusVirtualObject {
 public:
  static constexpr const char* kRoot = "/org/freedesktop/secrets";
  static constexpr const char* kCollection = "/org/freedesktop/secrets/collection/one";
  enum class Answer { allow, refuse, none };

  explicit FakeSecretService(const PrivateBus& bus) {
    qDBusRegisterMetaType<QMap<QString, QString>>();
    connection_ = QDBusConnection::connectToBus(bus.address().c_str(), name_);
    EXPECT_TRUE(connection_.registerVirtualObject(kRoot, this, QDBusConnection::SubPath));
    EXPECT_TRUE(connection_.registerService("org.freedesktop.secrets"));
  }
  ~FakeSecretService() override { QDBusConnection::disconnectFromBus(name_); }

  bool hasDefault = true;
  bool isLocked = false;
  bool losesWrites = false;
  Answer answer = Answer::allow;
  int windows = 0;              ///< prompts that were shown
  int searchesWhileLocked = 0;  ///< which make some programs open a window
  std::set<QString> clients;    ///< connections that have asked anything
  std::set<QString> sessions;   ///< that are open

  /// The user answers the prompt that is shown.
  void reply(bool allowed) {
    if (allowed) {
      isLocked = false;
      for (auto& [path, item] : items_) item.allowed.insert(asking_);
    }
    auto signal = QDBusMessage::createSignal(prompt_, "org.freedesktop.Secret.Prompt", "Completed");
    signal << !allowed << QVariant::fromValue(QDBusVariant(QString()));
    connection_.send(signal);
  }
  void lock() {
    isLocked = true;
    auto signal = QDBusMessage::createSignal(kCollection, "org.freedesktop.DBus.Properties",
                                             "PropertiesChanged");
    signal << "org.freedesktop.Secret.Collection" << QVariantMap{{"Locked", true}} << QStringList();
    connection_.send(signal);
  }

  QString introspect(const QString&) const override { return {}; }
  bool handleMessage(const QDBusMessage& message, const QDBusConnection& on) override {
    clients.insert(message.service());
    const auto arguments = message.arguments();
    const auto give = [&](const QVariantList& values) { on.send(message.createReply(values)); };
    const auto path = [](const char* text) { return QVariant::fromValue(QDBusObjectPath(text)); };
    const auto asked = [&] {  // a prompt's path
      prompt_ = QString("%1/prompt/%2").arg(kRoot).arg(++prompts_);
      asking_ = message.service();
      return QVariant::fromValue(QDBusObjectPath(prompt_));
    };
    const QString member = message.member();
    if (member == "OpenSession") {
      if (arguments[0] != "plain")
        return refuse(message, on, "org.freedesktop.DBus.Error.NotSupported");
      const auto opened = QString("/session/%1").arg(++opened_);
      sessions.insert(opened);
      give({QVariant::fromValue(QDBusVariant(QString())),
            QVariant::fromValue(QDBusObjectPath(opened))});
    } else if (member == "ReadAlias") {
      give({path(hasDefault ? kCollection : "/")});
    } else if (member == "Get") {
      give({QVariant::fromValue(QDBusVariant(property(message, arguments[1].toString())))});
    } else if (member == "SearchItems") {
      searchesWhileLocked += isLocked;
      QList<QDBusObjectPath> found;
      const auto wanted = qdbus_cast<QMap<QString, QString>>(arguments[0]);
      for (const auto& [item, held] : items_) {
        if (held.account == wanted["account"]) found << QDBusObjectPath(item);
      }
      give({QVariant::fromValue(found)});
    } else if (member == "GetSecret") {
      if (!sessions.contains(arguments[0].value<QDBusObjectPath>().path()))
        return refuse(message, on, "org.freedesktop.Secret.Error.NoSession");
      QDBusArgument secret;
      secret.beginStructure();
      secret << arguments[0].value<QDBusObjectPath>() << QByteArray()
             << items_[message.path()].value << QString("text/plain");
      secret.endStructure();
      give({QVariant::fromValue(secret)});
    } else if (member == "Unlock") {
      give({QVariant::fromValue(QList<QDBusObjectPath>()), asked()});
    } else if (member == "CreateItem") {
      give({path("/"), create(message)});
    } else if (member == "Prompt") {
      ++windows;
      give({});
      if (answer != Answer::none) reply(answer == Answer::allow);
    } else {
      return refuse(message, on, "org.freedesktop.DBus.Error.UnknownMethod");
    }
    return true;
  }

 private:
  struct Item {
    QString account;
    QByteArray value;
    std::set<QString> allowed;  ///< connections
  };

  static bool refuse(const QDBusMessage& message, const QDBusConnection& on, const char* error) {
    return on.send(message.createErrorReply(error, "no"));
  }
  QVariant property(const QDBusMessage& message, const QString& name) {
    if (name == "Collections") {
      return QVariant::fromValue(QList{QDBusObjectPath(kCollection)});
    }
    if (name == "Modified") return QVariant::fromValue(qulonglong(1));
    const auto item = items_.find(message.path());
    if (item == items_.end()) return isLocked;
    return !item->second.allowed.contains(message.service());
  }
  QVariant create(const QDBusMessage& message) {
    const auto properties = qdbus_cast<QVariantMap>(message.arguments()[0]);
    const auto attributes =
        qdbus_cast<QMap<QString, QString>>(properties["org.freedesktop.Secret.Item.Attributes"]);
    const auto secret = message.arguments()[1].value<QDBusArgument>();
    QDBusObjectPath session;
    QByteArray parameters, value;
    QString type;
    secret.beginStructure();
    secret >> session >> parameters >> value >> type;
    secret.endStructure();
    auto& item = items_[QString("%1/%2").arg(kCollection, attributes["account"].right(3))];
    if (!losesWrites || item.account.isEmpty()) item.value = value;
    item.account = attributes["account"];
    item.allowed.insert(message.service());
    return QVariant::fromValue(QDBusObjectPath("/"));
  }

  const QString name_ = "fake-secrets";
  QDBusConnection connection_{"none"};
  std::map<QString, Item> items_;
  QString prompt_, asking_;
  int prompts_ = 0, opened_ = 0;
};

}  // namespace verdo::test
