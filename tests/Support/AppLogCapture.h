#pragma once

#include "tests/Support/Recorder.h"

#include <QLoggingCategory>
#include <QString>

namespace verdo::test {

/// While it lives, keeps the app's system log at every level as "category text". One at a time.
class AppLogCapture {
 public:
  AppLogCapture() {
    current() = this;
    QLoggingCategory::setFilterRules("verdo.*.debug=true");
    previous_ = qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext& context, const QString& text) {
          current()->lines_.add(std::string(context.category) + " " + text.toStdString());
        });
  }
  ~AppLogCapture() {
    qInstallMessageHandler(previous_);
    QLoggingCategory::setFilterRules({});
  }
  AppLogCapture(const AppLogCapture&) = delete;
  AppLogCapture& operator=(const AppLogCapture&) = delete;

  std::vector<std::string> lines() const { return lines_.all(); }
  bool has(const std::string& text) const { return lines_.waitFor(holding(text), {}); }

 private:
  static AppLogCapture*& current() {
    static AppLogCapture* capture = nullptr;
    return capture;
  }

  Recorder<std::string> lines_;
  QtMessageHandler previous_ = nullptr;
};

}  // namespace verdo::test
