#pragma once

#include "tests/Support/Recorder.h"

#include <QLoggingCategory>
#include <QString>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace verdo::test {

/// While it lives, keeps the app's system log at every level as "category text". One at a time.
class AppLogCapture {
 public:
  AppLogCapture() {
    keepIn(lines_);
    QLoggingCategory::setFilterRules("verdo.*.debug=true");
    previous_ = qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext& context, const QString& text) {
          const std::lock_guard lock(mutex());
          if (current()) current()->add(std::string(context.category) + " " + text.toStdString());
        });
  }
  ~AppLogCapture() {
    qInstallMessageHandler(previous_);
    QLoggingCategory::setFilterRules({});
    keepIn(nullptr);
  }
  AppLogCapture(const AppLogCapture&) = delete;
  AppLogCapture& operator=(const AppLogCapture&) = delete;

  std::vector<std::string> lines() const { return lines_->all(); }
  bool has(const std::string& text) const { return lines_->waitFor(holding(text), {}); }

 private:
  using Lines = std::shared_ptr<Recorder<std::string>>;

  /// Threads that nobody waits for may log when the test is over.
  static std::mutex& mutex() {
    static std::mutex guard;
    return guard;
  }
  static Lines& current() {
    static Lines lines;
    return lines;
  }
  static void keepIn(Lines lines) {
    const std::lock_guard lock(mutex());
    current() = std::move(lines);
  }

  const Lines lines_ = std::make_shared<Recorder<std::string>>();
  QtMessageHandler previous_ = nullptr;
};

}  // namespace verdo::test
