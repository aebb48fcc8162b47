#include "LocalService/LocalService.h"
#include "bench/Benches.h"
#include "bench/Desktop.h"
#include "bench/MeasuredProcess.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace verdo::bench {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kStarts = 8;
constexpr int kAgain = 3;  ///< openings after the first one of a start
constexpr int kCommands = 20;
constexpr auto kIdleTime = 20s;
/// What follows a start, an opening or a closing without anybody waiting for it.
constexpr auto kSettled = 1000ms;

/// The app, set up for the service as a user leaves it, with its secrets in files.
class AppSetup {
 public:
  explicit AppSetup(local::LocalService& service) : service_(service) {
    const fs::path home = desktop.home();
    write(home / ".config/verdo-driver/settings.ini",
          "[General]\nserverURL=" + service.url() + "\nsecretPlace=files\n");
    write(home / ".local/share/verdo-driver/secrets/driver-token", service.token());
    write(home / ".local/share/verdo-driver/secrets/llm-key", service.providerKey());
    write(home / "bin/ego-browser", "#!/bin/sh\ncat >/dev/null\necho '__SPACES__[]'\n");
    fs::permissions(home / "bin/ego-browser", fs::perms::owner_all);
  }

  MeasuredProcess start(const std::vector<std::string>& arguments = {}) const {
    return MeasuredProcess(VERDO_APP_PATH, arguments, environment());
  }
  MeasuredProcess startReference(const std::vector<std::string>& arguments = {},
                                 const Environment& additional = {}) const {
    Environment environment = desktop.environment();
    environment.insert(additional.begin(), additional.end());
    return MeasuredProcess(VERDO_TRAY_PATH, arguments, environment);
  }
  void waitForPoll() {
    if (!service_.requests().waitFor("poll", ++polls_, 10s)) throw std::runtime_error("no poll");
    std::this_thread::sleep_for(kSettled);
  }
  /// As a second start does it.
  void show() const {
    const std::string path = desktop.home() + "/verdo-driver-app.socket";
    const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    char reply[64];
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::write(socket.get(), "show\n", 5) != 5 || ::read(socket.get(), reply, sizeof reply) <= 0) {
      throw std::runtime_error("the app does not answer");
    }
  }

  Desktop desktop;

 private:
  Environment environment() const {
    Environment environment = desktop.environment();
    environment["PATH"] = desktop.home() + "/bin:/usr/bin:/bin";
    environment["VERDO_LLM_BASE_URL"] = service_.providerUrl();
    return environment;
  }
  static void write(const fs::path& path, const std::string& content) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << content;
    fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
  }

  local::LocalService& service_;
  std::uint64_t polls_ = 0;
};

/// Milliseconds, one for each start, or opening.
struct Times {
  std::vector<double> icon;
  std::vector<double> first;
  std::vector<double> again;
};

double millisecondsSince(Clock::time_point from, Clock::time_point to) {
  return secondsBetween(from, to) * 1e3;
}

/// Opens the window over and over, the first time for itself, and leaves it closed.
template <typename Open, typename Close>
void measureOpenings(Desktop& desktop, Times& times, const Open& open, const Close& close) {
  for (int i = 0; i <= kAgain; ++i) {
    desktop.forget();
    const auto begin = Clock::now();
    open();
    const double time = millisecondsSince(begin, desktop.waitUntilPainted(Desktop::Kind::window));
    (i == 0 ? times.first : times.again).push_back(time);
    std::this_thread::sleep_for(kSettled / 4);
    close();
    std::this_thread::sleep_for(kSettled / 4);
  }
}

void measure(AppSetup& app, MeasuredProcess& process, Times& times) {
  times.icon.push_back(millisecondsSince(process.startedAt(),
                                         app.desktop.waitUntilPainted(Desktop::Kind::trayIcon)));
  app.waitForPoll();
  measureOpenings(app.desktop, times, [&] { app.show(); }, [&] { app.desktop.pressEscape(); });
}

void measureReference(AppSetup& app, MeasuredProcess& process, Times& times) {
  times.icon.push_back(millisecondsSince(process.startedAt(),
                                         app.desktop.waitUntilPainted(Desktop::Kind::trayIcon)));
  std::this_thread::sleep_for(kSettled);
  const auto toggle = [&] { process.send("toggle"); };
  measureOpenings(app.desktop, times, toggle, toggle);
}

Row timeRow(const char* what, const std::vector<double>& times, double target,
            const std::vector<double>& reference) {
  const double time = median(times);
  return {what, fmt::format("{:.1f} ms", time), fmt::format("{:.0f} ms", target), time <= target,
          fmt::format("bare Qt tray program {:.1f} ms", median(reference))};
}

/// What a process has done, and what its threads have woken up for, over the idle time.
struct AppIdle {
  double rss = 0;  ///< MB
  double cpu = 0;  ///< ms
  std::uint64_t mainWakeups = 0;
  std::string others;  ///< wake-ups of the other threads that had some, by name
  double perSecond = 0;
};

/// What the reference's memory is with the libraries loaded that a driver and a keyring take.
double loadedMemory(AppSetup& app) {
  Times unused;
  app.desktop.forget();
  auto bare = app.startReference({}, {{"LD_PRELOAD", "libcurl.so.4 libsecret-1.so.0"}});
  measureReference(app, bare, unused);
  return bare.usage().rss;
}

AppIdle measureAppIdle(const MeasuredProcess& process) {
  const Usage before = process.usage();
  std::this_thread::sleep_for(kIdleTime);
  const Usage after = process.usage();
  AppIdle idle{after.rss, (after.cpu - before.cpu) * 1e3, 0, "", 0};
  std::uint64_t others = 0;
  for (const auto& [thread, switches] : after.threadSwitches) {
    const auto known = before.threadSwitches.find(thread);
    const auto wakeups = switches - (known == before.threadSwitches.end() ? 0 : known->second);
    if (thread == process.pid()) {
      idle.mainWakeups = wakeups;
    } else if (wakeups > 0) {
      std::string name;
      std::ifstream(fmt::format("/proc/{}/task/{}/comm", process.pid(), thread)) >> name;
      idle.others += fmt::format("{}{} {}", idle.others.empty() ? "" : ", ", name, wakeups);
      others += wakeups;
    }
  }
  idle.perSecond = static_cast<double>(others) / toSeconds(kIdleTime);
  return idle;
}

void addIdleRows(std::vector<Row>& rows, const AppIdle& idle, const AppIdle& reference,
                 double loaded) {
  const auto add = [&](const char* what, const std::string& measured, const std::string& target,
                       bool isMet, const std::string& bare) {
    rows.push_back({fmt::format("app idle, popover closed again: {}", what), measured, target,
                    isMet, "bare Qt tray program " + bare});
  };
  add("memory", fmt::format("{:.1f} MB", idle.rss), "40 MB", idle.rss <= 40,
      fmt::format("{:.1f} MB, {:.1f} with libcurl and libsecret loaded", reference.rss, loaded));
  add("CPU in 20 s", fmt::format("{:.0f} ms", idle.cpu), "0 ms", idle.cpu < 10,
      fmt::format("{:.0f} ms", reference.cpu));
  add("main thread's wake-ups in 20 s", fmt::format("{}", idle.mainWakeups), "0",
      idle.mainWakeups == 0, fmt::format("{}", reference.mainWakeups));
  add("other threads' wake-ups", fmt::format("{:.1f} /s ({})", idle.perSecond, idle.others), "1 /s",
      idle.perSecond <= 1, fmt::format("{:.1f} /s", reference.perSecond));
}

}  // namespace

void benchApp(std::vector<Row>& rows) {
  local::LocalService service;
  service.start();
  AppSetup app(service);

  Times times;
  Times reference;
  for (int i = 0; i < kStarts; ++i) {
    app.desktop.forget();
    auto process = app.start();
    measure(app, process, times);
    process.stop();
    app.desktop.forget();
    auto bare = app.startReference();
    measureReference(app, bare, reference);
  }
  rows.push_back(timeRow("app start → icon shown", times.icon, 100, reference.icon));
  rows.push_back(timeRow("popover's first opening → painted", times.first, 80, reference.first));
  rows.push_back(timeRow("later openings → painted", times.again, 30, reference.again));

  Times unused;
  app.desktop.forget();
  auto bare = app.startReference();
  measureReference(app, bare, unused);
  const AppIdle referenceIdle = measureAppIdle(bare);
  bare.stop();
  const double loaded = loadedMemory(app);
  app.desktop.forget();
  auto process = app.start();
  measure(app, process, unused);
  std::this_thread::sleep_for(kSettled);
  addIdleRows(rows, measureAppIdle(process), referenceIdle, loaded);

  std::vector<double> answers;
  std::vector<double> loads;
  for (int i = 0; i < kCommands; ++i) {
    answers.push_back(app.start({"--status"}).waitForEnd() * 1e3);
    loads.push_back(app.startReference({"--nothing"}).waitForEnd() * 1e3);
  }
  rows.push_back(timeRow("app --status → answered, ended", answers, 30, loads));
}

}  // namespace verdo::bench
