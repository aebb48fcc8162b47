#include "bench/Desktop.h"

#include "VerdoDriverCore/Process/Which.h"
#include "VerdoDriverCore/System/UniqueFd.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>
#include <xcb/damage.h>
#include <xcb/xtest.h>

namespace verdo::bench {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr auto kLimit = 10s;
constexpr int kLargestIcon = 64;
constexpr std::uint8_t kEscapeKey = 9;  // on every keyboard that Xvfb has

template <typename T>
using Reply = std::unique_ptr<T, decltype(&std::free)>;
template <typename T>
Reply<T> reply(T* value) {
  return {value, &std::free};
}

/// This program's reaction to what it sees is measured, too, so it comes first where it may; the
/// programs that it starts do not.
void comeFirst() {
  const sched_param first{.sched_priority = 1};
  static_cast<void>(::sched_setscheduler(0, SCHED_RR | SCHED_RESET_ON_FORK, &first));
}

/// One line of a child's output.
std::string lineFrom(const UniqueFd& output) {
  std::string line;
  for (char c = 0; ::read(output.get(), &c, 1) == 1 && c != '\n';) line += c;
  return line;
}

}  // namespace

Desktop::Desktop() {
  std::string home = fs::temp_directory_path() / "verdo-bench-XXXXXX";
  if (!::mkdtemp(home.data())) throw std::runtime_error("no temporary directory");
  home_ = home;
  comeFirst();
  const std::string bus = "unix:path=" + home_ + "/bus";
  environment_ = currentEnvironment();
  environment_.erase("WAYLAND_DISPLAY");
  for (const auto& [key, value] : Environment{{"HOME", home_},
                                              {"XDG_RUNTIME_DIR", home_},
                                              {"XDG_CONFIG_HOME", home_ + "/.config"},
                                              {"XDG_DATA_HOME", home_ + "/.local/share"},
                                              {"XDG_STATE_HOME", home_ + "/.local/state"},
                                              {"XDG_CACHE_HOME", home_ + "/.cache"},
                                              {"DBUS_SESSION_BUS_ADDRESS", bus},
                                              {"DBUS_SYSTEM_BUS_ADDRESS", bus},
                                              {"QT_QPA_PLATFORM", "xcb"}}) {
    environment_[key] = value;
  }
  start({"dbus-daemon", "--session", "--nofork", "--address=" + bus});
  startDisplay();
  watch();
  start({"openbox"});
  waitForSelection("WM_S0");
  startPanel();
  waitForSelection("_NET_SYSTEM_TRAY_S0");
}

Desktop::~Desktop() {
  x_.reset();
  while (!children_.empty()) {
    children_.back()->signalGroup(SIGTERM);
    children_.pop_back();
  }
  std::error_code ignored;
  fs::remove_all(home_, ignored);
}

void Desktop::start(const std::vector<std::string>& command) {
  const auto program = Which::find(command.front());
  if (!program) throw std::runtime_error(command.front() + " is not installed");
  children_.push_back(Spawn::launch(*program, command, environment_, false));
}

void Desktop::startDisplay() {
  start({"Xvfb", "-displayfd", "1", "-screen", "0", "1024x768x24", "-nolisten", "tcp"});
  environment_["DISPLAY"] = ":" + lineFrom(children_.back()->takeStdout());
}

void Desktop::startPanel() {
  const std::string settings = home_ + "/tint2rc";
  std::ofstream(settings) << "panel_items = TS\npanel_position = bottom center horizontal\n"
                             "panel_size = 100% 32\n";
  start({"tint2", "-c", settings});
}

void Desktop::watch() {
  x_.reset(xcb_connect(environment_["DISPLAY"].c_str(), nullptr));
  if (xcb_connection_has_error(x_.get())) throw std::runtime_error("no connection to Xvfb");
  root_ = xcb_setup_roots_iterator(xcb_get_setup(x_.get())).data->root;
  const auto* damage = xcb_get_extension_data(x_.get(), &xcb_damage_id);
  if (!damage || !damage->present) throw std::runtime_error("Xvfb has no damage extension");
  damageEvent_ = static_cast<std::uint8_t>(damage->first_event + XCB_DAMAGE_NOTIFY);
  std::free(
      xcb_damage_query_version_reply(x_.get(), xcb_damage_query_version(x_.get(), 1, 1), nullptr));
  const std::uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
  xcb_change_window_attributes(x_.get(), root_, XCB_CW_EVENT_MASK, &mask);
  xcb_flush(x_.get());
}

void Desktop::waitForSelection(const char* name) {
  const auto atom = reply(xcb_intern_atom_reply(
      x_.get(), xcb_intern_atom(x_.get(), 0, static_cast<std::uint16_t>(std::strlen(name)), name),
      nullptr));
  for (const auto end = Clock::now() + kLimit; Clock::now() < end;) {
    const auto owner = reply(xcb_get_selection_owner_reply(
        x_.get(), xcb_get_selection_owner(x_.get(), atom->atom), nullptr));
    if (owner && owner->owner != XCB_NONE) return;
    std::this_thread::sleep_for(10ms);
  }
  throw std::runtime_error(std::string("nobody has become ") + name);
}

/// Frames of the window manager have no class; the panel's is its own.
bool Desktop::isOfAProgram(xcb_window_t window) {
  const auto name = reply(xcb_get_property_reply(
      x_.get(), xcb_get_property(x_.get(), 0, window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 0, 64),
      nullptr));
  if (!name) return false;
  const std::string text(static_cast<const char*>(xcb_get_property_value(name.get())),
                         static_cast<std::size_t>(xcb_get_property_value_length(name.get())));
  return !text.empty() && !text.starts_with("tint2");
}

void Desktop::handle(const xcb_generic_event_t& event) {
  const auto now = Clock::now();
  const auto type = event.response_type & 0x7f;
  if (type == XCB_CREATE_NOTIFY) {
    const auto& created = reinterpret_cast<const xcb_create_notify_event_t&>(event);
    const std::uint32_t mask = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(x_.get(), created.window, XCB_CW_EVENT_MASK, &mask);
    xcb_damage_create(x_.get(), xcb_generate_id(x_.get()), created.window,
                      XCB_DAMAGE_REPORT_LEVEL_RAW_RECTANGLES);
    windows_[created.window] = {created.width, created.height};
  } else if (type == XCB_CONFIGURE_NOTIFY) {
    const auto& configured = reinterpret_cast<const xcb_configure_notify_event_t&>(event);
    if (const auto found = windows_.find(configured.window); found != windows_.end()) {
      found->second.width = configured.width;
      found->second.height = configured.height;
    }
  } else if (type == XCB_MAP_NOTIFY) {
    const auto window = reinterpret_cast<const xcb_map_notify_event_t&>(event).window;
    if (const auto found = windows_.find(window); found != windows_.end()) {
      found->second.isMapped = isOfAProgram(window);
    }
  } else if (type == XCB_UNMAP_NOTIFY) {
    const auto window = reinterpret_cast<const xcb_unmap_notify_event_t&>(event).window;
    const auto found = windows_.find(window);
    if (found == windows_.end()) return;
    isUnmapped_ = isUnmapped_ || found->second.isMapped;
    found->second.isMapped = false;
  } else if (type == XCB_DESTROY_NOTIFY) {
    windows_.erase(reinterpret_cast<const xcb_destroy_notify_event_t&>(event).window);
  } else if (type == damageEvent_) {
    const auto& damage = reinterpret_cast<const xcb_damage_notify_event_t&>(event);
    const auto found = windows_.find(damage.drawable);
    if (found == windows_.end() || !found->second.isMapped) return;
    const Window& window = found->second;
    if (damage.area.width * 2 < window.width || damage.area.height * 2 < window.height) return;
    painted_.insert({window.width <= kLargestIcon ? Kind::trayIcon : Kind::window, now});
  }
}

void Desktop::handleUntil(const std::function<bool()>& done, const char* what) {
  const auto end = Clock::now() + kLimit;
  while (!done()) {
    xcb_flush(x_.get());
    if (const auto event = reply(xcb_poll_for_event(x_.get()))) {
      handle(*event);
      continue;
    }
    if (Clock::now() > end) throw std::runtime_error(std::string("never seen: ") + what);
    pollfd ready{xcb_get_file_descriptor(x_.get()), POLLIN, 0};
    ::poll(&ready, 1, 100);
  }
}

void Desktop::forget() {
  // Its reply comes behind every event until now.
  reply(xcb_get_input_focus_reply(x_.get(), xcb_get_input_focus(x_.get()), nullptr));
  while (const auto event = reply(xcb_poll_for_event(x_.get()))) handle(*event);
  painted_.clear();
}

Desktop::Clock::time_point Desktop::waitUntilPainted(Kind kind) {
  handleUntil([&] { return painted_.contains(kind); },
              kind == Kind::trayIcon ? "the tray icon" : "the window");
  return painted_.at(kind);
}

void Desktop::pressEscape() {
  handleUntil(
      [this] {
        const auto focus =
            reply(xcb_get_input_focus_reply(x_.get(), xcb_get_input_focus(x_.get()), nullptr));
        const auto found = focus ? windows_.find(focus->focus) : windows_.end();
        return found != windows_.end() && found->second.isMapped;
      },
      "the window with the keyboard");
  isUnmapped_ = false;
  for (const auto type : {std::uint8_t{XCB_KEY_PRESS}, std::uint8_t{XCB_KEY_RELEASE}}) {
    xcb_test_fake_input(x_.get(), type, kEscapeKey, XCB_CURRENT_TIME, root_, 0, 0, 0);
  }
  handleUntil([&] { return isUnmapped_; }, "the window's end");
}

}  // namespace verdo::bench
