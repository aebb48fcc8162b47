#include "VerdoDriver/MenuBar/MenuBarController.h"

#include "VerdoDriver/MenuBar/PopoverPlacement.h"
#include "VerdoDriver/MenuBar/StatusItemIconRenderer.h"
#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/UI/Look.h"

#include <QBackingStore>
#include <QCursor>
#include <QDialog>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QPainter>
#include <QScreen>
#include <QVBoxLayout>

namespace verdo {
namespace {

/// A click on the icon takes the focus from the popover first, which hides it: so soon after that,
/// the click was meant to hide it, too.
constexpr std::chrono::milliseconds kSameClick{300};
/// A tooltip is one line beside the pointer.
constexpr qsizetype kMaxTooltip = 200;

/// What a window manager puts around an ordinary window, in height.
constexpr int kFrame = 40;
/// Around the popover where it has no such frame, px.
constexpr int kLine = 1;

/// Windows can be put at a place: everywhere but on Wayland.
bool canPlaceWindows() {
  return !QGuiApplication::platformName().startsWith(QLatin1String("wayland"));
}

/// Some trays take these characters for markup, others would show what they are written as there.
QString plainTooltip(const std::string& text) {
  return QString::fromStdString(text)
      .left(kMaxTooltip)
      .replace('<', QStringLiteral("‹"))
      .replace('>', QStringLiteral("›"))
      .replace('&', '+');
}

}  // namespace

MenuBarController::MenuBarController(AppModel& model, std::unique_ptr<QWidget> popover,
                                     System system)
    : model_(model),
      system_(std::move(system)),
      window_(std::make_unique<QDialog>()),
      popover_(popover.get()) {
  auto* layout = new QVBoxLayout(window_.get());
  layout->setSizeConstraint(QLayout::SetFixedSize);  // the window follows its content
  layout->addWidget(popover.release());
  window_->setWindowTitle(QStringLiteral("Verdo Driver"));
  window_->setAttribute(Qt::WA_QuitOnClose, false);
  makeWindow();
  window_->installEventFilter(this);
  for (const QScreen* screen : QGuiApplication::screens()) watch(screen);
  connect(qApp, &QGuiApplication::screenAdded, this, &MenuBarController::watch);
  connect(&model_, &AppModel::changed, this, &MenuBarController::updateIcon);
  updateIcon();
}

MenuBarController::~MenuBarController() = default;

void MenuBarController::makeStatusItem() {
  statusItem_ = std::make_unique<QSystemTrayIcon>(window_->windowIcon());
  statusItem_->setToolTip(plainTooltip(tooltip_));
  connect(statusItem_.get(), &QSystemTrayIcon::activated, this,
          &MenuBarController::statusItemClicked);
  statusItem_->show();
}

QIcon MenuBarController::iconFor(const Look& look) const {
  QIcon icon = system_.icon ? system_.icon(look.connection, look.updateAvailable) : QIcon();
  return icon.isNull() ? StatusItemIconRenderer::icon(look.connection, look.updateAvailable) : icon;
}

void MenuBarController::updateIcon() {
  const Look look{model_.connection(), model_.releases().updateAvailable()};
  if (look_ != look) {
    look_ = look;
    const QIcon icon = iconFor(look);
    window_->setWindowIcon(icon);
    if (statusItem_) statusItem_->setIcon(icon);
  }
  auto tooltip = tooltipOf(look.connection, model_.supervisor().busyLanes(), look.updateAvailable);
  if (tooltip == tooltip_) return;
  tooltip_ = std::move(tooltip);
  if (statusItem_) statusItem_->setToolTip(plainTooltip(tooltip_));
}

void MenuBarController::statusItemClicked(QSystemTrayIcon::ActivationReason reason) {
  if (reason == QSystemTrayIcon::Unknown || reason == QSystemTrayIcon::DoubleClick) return;
  if (window_->isVisible()) return hidePopover();
  if (std::chrono::steady_clock::now() - lostFocusAt_ >= kSameClick) showPopover();
}

void MenuBarController::showPopover() {
  model_.popoverOpened();
  if (!window_->isVisible()) chooseKind();
  fitScreen();
  window_->adjustSize();
  if (isPlaced_) position();
  window_->show();
  if (isPlaced_ && system_.present) system_.present(window_->winId());
  window_->raise();
  window_->activateWindow();
  AppLog::menuBar.debug("[MenuBar] popover shown");
}

void MenuBarController::hidePopover() {
  if (!window_->isVisible()) return;
  window_->hide();
  lostFocusAt_ = {};  // which it did only because it was hidden
  AppLog::menuBar.debug("[MenuBar] popover hidden");
}

bool MenuBarController::isPopoverVisible() const { return window_->isVisible(); }

/// Trays come and go while the app runs.
void MenuBarController::chooseKind() {
  const bool isPlaced =
      statusItem_ && canPlaceWindows() && QSystemTrayIcon::isSystemTrayAvailable();
  if (isPlaced == isPlaced_) return;
  isPlaced_ = isPlaced;
  makeWindow();
}

/// An ordinary window has a frame of the system's; beside the icon a line sets it off. A dialog all
/// the same: screen readers take it for a window.
void MenuBarController::makeWindow() {
  window_->setWindowFlags(isPlaced_ ? Qt::Tool | Qt::FramelessWindowHint : Qt::Window);
  const int line = isPlaced_ ? kLine : 0;
  window_->layout()->setContentsMargins(line, line, line, line);
}

/// On which the icon is, or the window without one; null without any.
const QScreen* MenuBarController::screen() const {
  if (!isPlaced_) return window_->screen();
  const QRect icon = statusItem_->geometry();
  const QScreen* screen =
      QGuiApplication::screenAt(icon.isEmpty() ? QCursor::pos() : icon.center());
  return screen ? screen : QGuiApplication::primaryScreen();
}

/// Another resolution, or another panel, leaves another room.
void MenuBarController::watch(const QScreen* screen) {
  connect(screen, &QScreen::availableGeometryChanged, this, [this] {
    if (!window_->isVisible()) return;
    fitScreen();
    if (isPlaced_) position();
  });
}

/// What does not fit on the screen is scrolled to.
void MenuBarController::fitScreen() {
  const QScreen* on = screen();
  if (!on) return;
  popover_->setMaximumHeight(on->availableGeometry().height() - 2 * kPopoverMargin -
                             (isPlaced_ ? 2 * kLine : kFrame));
}

void MenuBarController::position() {
  const QScreen* on = screen();
  if (!on) return;
  window_->move(popoverPosition(statusItem_->geometry(), QCursor::pos(), on->geometry(),
                                on->availableGeometry(), window_->sizeHint()));
}

/// The display server shares it. A window that is shown is painted anew, at its own size.
void MenuBarController::letGoOfPicture() {
  if (auto* picture = window_->backingStore()) picture->resize(QSize(1, 1));
}

bool MenuBarController::eventFilter(QObject* watched, QEvent* event) {
  if (watched == window_.get()) {
    if (event->type() == QEvent::WindowDeactivate && isPlaced_ && window_->isVisible()) {
      hidePopover();
      lostFocusAt_ = std::chrono::steady_clock::now();
    }
    if (event->type() == QEvent::Hide && !window_->isVisible()) letGoOfPicture();
    if (event->type() == QEvent::KeyPress && window_->isVisible() &&
        static_cast<QKeyEvent*>(event)->key() == Qt::Key_Escape) {
      hidePopover();
      return true;
    }
    if (event->type() == QEvent::Paint && isPlaced_) {
      QPainter painter(window_.get());
      painter.setPen(verdo::Look::lineColor(window_->palette()));
      painter.drawRect(window_->rect().adjusted(0, 0, -1, -1));
    }
    if (event->type() == QEvent::Resize && isPlaced_ && window_->isVisible()) position();
  }
  return QObject::eventFilter(watched, event);
}

}  // namespace verdo
