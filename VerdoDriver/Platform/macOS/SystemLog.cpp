#include "VerdoDriver/Platform/SystemLog.h"

#include "VerdoDriverCore/System/Sync.h"

#include <QLoggingCategory>
#include <QString>
#include <map>
#include <string>
#include <string_view>

#include <os/log.h>

namespace verdo {
namespace {

constexpr std::string_view kOurs = "verdo.";

QtMessageHandler previousHandler = nullptr;

/// By category. They are never given back, neither here nor by the system.
class LogChannels {
 public:
  void open(const std::string& subsystem) {
    const MutexLock lock(lock_);
    subsystem_ = subsystem;
    channels_.clear();
  }
  os_log_t of(const std::string& category) {
    const MutexLock lock(lock_);
    auto& channel = channels_[category];
    if (!channel) channel = os_log_create(subsystem_.c_str(), category.c_str());
    return channel;
  }

 private:
  Mutex lock_;
  std::string subsystem_ GUARDED_BY(lock_);
  std::map<std::string, os_log_t> channels_ GUARDED_BY(lock_);
};
LogChannels logChannels;

os_log_type_t typeOf(QtMsgType type) {
  switch (type) {
    case QtDebugMsg:
      return OS_LOG_TYPE_DEBUG;
    case QtInfoMsg:
      return OS_LOG_TYPE_INFO;
    case QtFatalMsg:
      return OS_LOG_TYPE_FAULT;
    default:
      return OS_LOG_TYPE_ERROR;
  }
}

void writeToSystemLog(QtMsgType type, const QMessageLogContext& context, const QString& text) {
  const std::string_view category(context.category ? context.category : "");
  if (!category.starts_with(kOurs)) return previousHandler(type, context, text);
  const auto channel = logChannels.of(std::string(category.substr(kOurs.size())));
  // Public: the texts hold no secret, and would be hidden from the user otherwise.
  os_log_with_type(channel, typeOf(type), "%{public}s", text.toUtf8().constData());
}

}  // namespace

void openSystemLog(const std::string& appId) {
  logChannels.open(appId);
  // The system drops debug lines by itself as long as nobody looks at them.
  QLoggingCategory::setFilterRules(QStringLiteral("verdo.*.debug=true"));
  previousHandler = qInstallMessageHandler(&writeToSystemLog);
}

}  // namespace verdo
