#include "VerdoDriver/App/AppDelegate.h"
#include "VerdoDriver/App/AppInfo.h"
#include "VerdoDriver/App/Composition.h"
#include "VerdoDriver/App/ControlChannel.h"
#include "VerdoDriver/App/DisplayGuard.h"
#include "VerdoDriver/App/DisplayLoss.h"
#include "VerdoDriver/App/EndProcess.h"
#include "VerdoDriver/App/QuitSignals.h"
#include "VerdoDriver/MenuBar/StatusItemIconRenderer.h"
#include "VerdoDriver/Model/AppLog.h"
#include "VerdoDriver/Model/SecretTask.h"
#include "VerdoDriver/Model/StatusReport.h"
#include "VerdoDriver/Platform/AgentWindow.h"
#include "VerdoDriver/Platform/NativeSettings.h"
#include "VerdoDriver/Platform/SystemIcon.h"
#include "VerdoDriver/Platform/SystemLog.h"
#include "VerdoDriver/Platform/SystemParts.h"
#include "VerdoDriver/Platform/TrayWatch.h"
#include "VerdoDriver/UI/PopoverView.h"
#include "VerdoDriverCore/Contract/DriverConstants.h"
#include "VerdoDriverCore/Contract/Secrets.h"
#include "VerdoDriverCore/Process/ChildProcess.h"
#include "VerdoDriverCore/System/LargeBlocks.h"
#include "VerdoDriverCore/Values/Url.h"

#include <QApplication>
#include <QSettings>
#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <span>
#include <string_view>

namespace {

using namespace verdo;

constexpr int kUsageError = 2;
constexpr int kNotRunning = 3;
constexpr const char* kUsage =
    "Usage: verdo-driver-app [OPTION]\n"
    "\n"
    "Runs the Verdo Driver in the tray; when one runs already, opens its window.\n"
    "\n"
    "  --show              Start with the window open\n"
    "  --status            Print the running app's state as JSON\n"
    "  --quit              End the running app, once its driver has stopped\n"
    "  -VERDOImportLegacy  Take over token and key of a driver that starts itself in a\n"
    "                      terminal, and remove it; not into an app that has a token\n"
    "  --version           Show the version and end\n"
    "  --help              Show this and end\n"
    "\n"
    "Environment:\n"
    "  VERDO_EXTRA_CA_CERT  PEM file of certificates to trust beside the system's\n"
    "  VERDO_LLM_BASE_URL   Base URL of the LLM provider\n"
    "\n"
    "Exit status: 0 done, 1 the app cannot start or has lost its display,\n"
    "2 bad usage, 3 no app runs (--status, --quit).\n";

constexpr const char* kDoesNotAnswer = "verdo-driver-app: an app is running, but does not answer\n";

/// For the secret queue before the process ends.
constexpr std::chrono::milliseconds kSecretLimit{500};
/// For a check that the user has begun, which may have to end an executor.
constexpr std::chrono::seconds kCheckupLimit{6};

bool has(std::span<char*> arguments, std::string_view option) {
  return std::any_of(arguments.begin(), arguments.end(),
                     [&](const char* argument) { return option == argument; });
}

/// The first word that nobody knows; null: none. Qt's own options begin with one dash.
const char* unknownOption(std::span<char*> arguments) {
  const auto found = std::find_if(arguments.begin(), arguments.end(), [](std::string_view word) {
    return word.starts_with("--") && word != "--show";
  });
  return found == arguments.end() ? nullptr : *found;
}

/// Another app runs, and shows itself now.
bool hasShownAnother() {
  if (!askRunningApp(controlSocketPath(), "show")) return false;
  AppLog::lifecycle.info("[AppDelegate] another instance is running — terminating this one");
  return true;
}

/// What a command to a running app prints and ends with.
int command(const char* name, bool isPrinted) {
  const auto reply = askRunningApp(controlSocketPath(), name);
  if (!reply) {
    std::fputs(
        isAppAlive(controlSocketPath()) ? kDoesNotAnswer : "verdo-driver-app: no app is running\n",
        stderr);
    return kNotRunning;
  }
  if (isPrinted) std::printf("%s\n", reply->c_str());
  return 0;
}

void serveControl(ControlServer& control, AppModel& model, MenuBarController& menuBar,
                  AppDelegate& delegate) {
  control.handle("show", [&menuBar] {
    menuBar.showPopover();
    return std::string("shown");
  });
  control.handle("status", [&] {
    model.releases().lookAtProgram();
    return statusReport(model, menuBar.isPopoverVisible());
  });
  control.handle("quit", [&delegate] {
    delegate.quit();
    return std::string("quitting");
  });
}

int run(int argc, char** argv, const AppDelegate::Options& options) {
  // By this name desktops find the entry of our windows, and with it their title and icon.
  QGuiApplication::setDesktopFileName(QString::fromStdString(AppInfo::bundleID()));
  std::optional<DisplayGuard> guard(std::in_place);
  QApplication app(argc, argv);
  guard.reset();
  AgentWindow::becomeAgent();
  QApplication::setQuitOnLastWindowClosed(false);
  QApplication::setApplicationName(QStringLiteral("verdo-driver"));
  QApplication::setApplicationDisplayName(QStringLiteral("Verdo Driver"));
  // English, left to right, whatever the locale: numbers and texts are read by programs, too.
  std::setlocale(LC_NUMERIC, "C");
  std::setlocale(LC_MESSAGES, "C");
  QLocale::setDefault(QLocale::c());
  QGuiApplication::setLayoutDirection(Qt::LeftToRight);

  const std::string program = programPath();  // before another one lies there

  ControlServer control;
  if (!control.listen(controlSocketPath())) {
    if (hasShownAnother()) return 0;
    if (isAppAlive(controlSocketPath())) {
      std::fputs(kDoesNotAnswer, stderr);
      return 1;
    }
    std::fprintf(stderr, "verdo-driver-app: cannot listen at %s: %s\n", controlSocketPath().c_str(),
                 control.error().c_str());
    return 1;
  }

  const char* const llmBase = std::getenv(DriverConstants::llmBaseEnv);
  const auto log = std::make_shared<FileLog>();
  const char* const extraCa = std::getenv(DriverConstants::extraCaCertEnv);
  const auto model = makeAppModel(log, lowerScheme(llmBase ? llmBase : ""),
                                  DriverConstants::expandTilde(extraCa ? extraCa : ""));
  AppDelegate* running = nullptr;
  const PopoverHost host{
      .quit = [&running] { running->quit(); },
      .restart = [&running] { running->restart(); },
      .shape =
          [](Connection connection, int size, double scale) {
            return StatusItemIconRenderer::pixmap(connection, false, size, scale);
          },
      .defaultServerURL = AppInfo::defaultServerURL(),
  };
  MenuBarController menuBar(*model, std::make_unique<PopoverView>(*model, host),
                            {.icon = systemIcon, .present = AgentWindow::present});
  whenTrayIsKnown(&menuBar, [&menuBar] { menuBar.makeStatusItem(); });
  AppDelegate delegate(*model, menuBar, [] { QCoreApplication::exit(0); });
  running = &delegate;
  serveControl(control, *model, menuBar, delegate);
  const QuitSignals quitSignals([&delegate] { delegate.quit(); });
  QObject::connect(&app, &QGuiApplication::commitDataRequest, &delegate,
                   [&delegate] { delegate.sessionEnds(); });
  const DisplayLoss displayLoss([&] {
    delegate.displayIsLost();
    model->checkup().end(kCheckupLimit);
    endProcess(1, *log, *nativeSettings());
  });
  delegate.didFinishLaunching(options);

  const int status = QApplication::exec();
  AppLog::lifecycle.info("[AppDelegate] terminated");
  endSecretWork(kSecretLimit);
  model->checkup().end(kCheckupLimit);
  if (delegate.isRestarting()) restartProcess(program, *log, *nativeSettings());
  endProcess(status, *log, *nativeSettings());
}

}  // namespace

int main(int argc, char** argv) {
  giveBackLargeBlocks();
  keepEndedChildren();
  forbidCoreDumps();
  eraseSecretsFromEnvironment();
  openSystemLog(AppInfo::bundleID());
  const std::span<char*> arguments(argv + 1, argv + argc);
  if (has(arguments, "--help")) return std::fputs(kUsage, stdout) < 0 ? 1 : 0;
  if (has(arguments, "--version")) return std::printf("%s\n", AppInfo::version().c_str()) < 0;
  if (has(arguments, "--status")) return command("status", true);
  if (has(arguments, "--quit")) return command("quit", false);
  if (const char* unknown = unknownOption(arguments)) {
    std::fprintf(stderr, "verdo-driver-app: unknown option %s (see verdo-driver-app --help)\n",
                 unknown);
    return kUsageError;
  }
  if (hasShownAnother()) return 0;
  try {
    return run(argc, argv,
               {.importLegacy = has(arguments, "-VERDOImportLegacy"),
                .showPopover = has(arguments, "--show")});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "verdo-driver-app: cannot start: %s\n", error.what());
    return 1;
  }
}
