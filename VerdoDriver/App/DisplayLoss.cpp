#include "VerdoDriver/App/DisplayLoss.h"

#include "VerdoDriver/Model/MainThread.h"

#include <QString>
#include <chrono>
#include <thread>
#include <utility>

namespace verdo {
namespace {

/// The end takes less.
constexpr std::chrono::seconds kMaxEnd{15};

std::function<void()> whenLost;  // the main thread's
QtMessageHandler handlerBefore = nullptr;

/// Whether Qt says this right before it ends the process.
bool tellsLoss(QtMsgType type, const QString& text) {
  return type != QtDebugMsg && type != QtInfoMsg &&
         (text.startsWith("The X11 connection broke") ||
          text.startsWith("The Wayland connection "));
}

void tell() {
  if (const auto lost = std::exchange(whenLost, nullptr)) lost();
}

void listen(QtMsgType type, const QMessageLogContext& context, const QString& text) {
  handlerBefore(type, context, text);
  if (!tellsLoss(type, text)) return;
  if (MainThread::isCurrent()) return tell();
  // On Wayland the thread that reads from the compositor hears of it, too, and would end the
  // process under the main one.
  MainThread::post(tell);
  std::this_thread::sleep_for(kMaxEnd);
}

}  // namespace

DisplayLoss::DisplayLoss(std::function<void()> onLoss) {
  whenLost = std::move(onLoss);
  handlerBefore = qInstallMessageHandler(&listen);
}

DisplayLoss::~DisplayLoss() {
  qInstallMessageHandler(handlerBefore);
  whenLost = nullptr;
}

}  // namespace verdo
