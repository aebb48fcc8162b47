#pragma once

#include <QLoggingCategory>
#include <QString>
#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace verdo::test {

/// While it lives, keeps the app's system log at every level as "category text". One at a time.
class AppLogCapture {
 public:
  AppLogCapture() {
    current() = this;
    QLoggingCategory::setFilterRules("verdo.*.debug=true");
    previous_ = qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext& context, const QString& text) {
          const std::lock_guard lock(current()->mutex_);
          current()->lines_.push_back(std::string(context.category) + " " + text.toStdString());
        });
  }
  ~AppLogCapture() {
    qInstallMessageHandler(previous_);
    QLoggingCategory::setFilterRules({});
  }
  AppLogCapture(const AppLogCapture&) = delete;
  AppLogCapture& operator=(const AppLogCapture&) = delete;

  std::vector<std::string> lines() const {
    const std::lock_guard lock(mutex_);
    return lines_;
  }
  bool has(const std::string& text) const {
    const auto now = lines();
    return std::any_of(now.begin(), now.end(), [&](const std::string& line) {
      return line.find(text) != std::string::npos;
    });
  }

 private:
  static AppLogCapture*& current() {
    static AppLogCapture* capture = nullptr;
    return capture;
  }

  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  QtMessageHandler previous_ = nullptr;
};

}  // namespace verdo::test
