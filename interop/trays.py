"""The app's icon in the trays of people's desktops: there, clicked, and with its words, whichever
of the two was started first, and after the tray's restart. One line for each check.
Usage: trays.py PROGRAM xfce4-panel|lxqt-panel|waybar    (the last not as root)"""

import json
import os
import re
import signal
import sys

from gi.repository import GLib

from accessible import ScreenReader
from bus import Bus
from desktop import Desktop, Failed, wait_for
from notifier import ITEM, WATCHER, NotifierTray
from panel import Panel, window_places
from screen import picture

NAME, APP_ID = "verdo-driver", "com.pellmar.verdodriver"  # its windows on X11, on Wayland
WORDS = "Verdo Driver — not set up"
BAR = 40  # pixels at the edge of the screen, more than any of the panels has
XFCE = """<?xml version="1.0"?><channel name="xfce4-panel" version="1.0">
<property name="configver" type="int" value="2"/>
<property name="panels" type="array"><value type="int" value="1"/><property name="panel-1" type="empty">
<property name="position" type="string" value="p=8;x=512;y=752"/>
<property name="position-locked" type="bool" value="true"/>
<property name="length" type="uint" value="100"/><property name="size" type="uint" value="32"/>
<property name="plugin-ids" type="array"><value type="int" value="1"/></property></property></property>
<property name="plugins" type="empty"><property name="plugin-1" type="string" value="systray"/></property>
</channel>"""
LXQT = """[General]
panels=panel1
[panel1]
plugins=tray,statusnotifier
position=Bottom
panelSize=32
[tray]
type=tray
[statusnotifier]
type=statusnotifier
"""
WAYBAR = '{"position": "bottom", "height": 32, "modules-left": ["tray"], "tray": {"icon-size": 24}}'


class X11:
    """Xvfb with a window manager and this panel."""

    def __init__(self, panel):
        self.panel, self.desktop = panel, Desktop()
        self.manager = Panel(self.desktop)
        write(self.desktop, ".config/xfce4/xfconf/xfce-perchannel-xml/xfce4-panel.xml", XFCE)
        write(self.desktop, ".config/lxqt/panel.conf", LXQT)

    def start(self):
        child = self.desktop.start(self.panel)
        wait_for(self.manager.has_tray, f"{self.panel}'s tray")
        return child

    def bar(self):
        return picture(self.desktop, (0, 768 - BAR, 1024, BAR))

    def click(self, place, item):
        self.desktop.run("xdotool", "mousemove", *map(str, place), "click", "1")

    def windows(self):
        return [place for place in window_places(self.desktop, NAME) if place[2] > 200]  # not the icon

    def is_right(self, window, icon):
        """Above the panel, and over the icon as far as the screen goes."""
        x, y, width, height = window
        return 768 - BAR - 8 <= y + height <= 768 and x - 8 <= icon[0] <= x + width + 8

    def press_escape(self):
        # The pointer is part of the picture.
        self.desktop.run("xdotool", "key", "Escape", "mousemove", "1", "1")


class Sway:
    """Wayland without a screen."""

    def __init__(self, panel):
        self.panel, self.desktop = panel, Desktop(display=False)
        env = self.desktop.env
        env.update(WLR_BACKENDS="headless", WLR_LIBINPUT_NO_DEVICES="1", WLR_RENDERER="pixman",
                   QT_QPA_PLATFORM="wayland")
        runtime = env["XDG_RUNTIME_DIR"]
        write(self.desktop, ".config/sway/config", "output * resolution 1024x768\n")
        write(self.desktop, ".config/waybar/config", WAYBAR)
        write(self.desktop, ".config/waybar/style.css", "* { font-size: 12px; }\n")
        self.desktop.start("sway")
        env["SWAYSOCK"] = wait_for(lambda: next(
            (f"{runtime}/{name}" for name in os.listdir(runtime) if name.startswith("sway-ipc")),
            None), "sway")
        env["WAYLAND_DISPLAY"] = wait_for(lambda: next(
            (name for name in os.listdir(runtime) if re.fullmatch(r"wayland-\d+", name)), None),
            "sway's display")
        wait_for(lambda: self.desktop.run("swaymsg", "-t", "get_outputs").returncode == 0, "sway")

    def start(self):
        child = self.desktop.start(self.panel)
        wait_for(lambda: self.desktop.owner(WATCHER), f"{self.panel}'s tray")
        return child

    def bar(self):
        path = os.path.join(self.desktop.home, "bar.ppm")
        self.desktop.run("grim", "-g", f"0,{768 - BAR} 1024x{BAR}", "-t", "ppm", path)
        with open(path, "rb") as file:
            pixels = file.read()[-1024 * BAR * 3:]
        return [pixels[row * 3072:(row + 1) * 3072] for row in range(BAR)]

    def click(self, place, item):
        """As its host does it: there is no pointer."""
        item.bus.call(item.owner, item.path, ITEM, "Activate", GLib.Variant("(ii)", place))

    def windows(self):
        def of(node):
            if node.get("app_id") == APP_ID:
                yield tuple(node["rect"].values())
            for child in node["nodes"] + node["floating_nodes"]:
                yield from of(child)
        return list(of(json.loads(self.desktop.run("swaymsg", "-t", "get_tree").stdout)))

    def is_right(self, window, icon):
        return True  # sway puts it where it wants

    def press_escape(self):
        self.desktop.run("swaymsg", f'[app_id="{APP_ID}"] kill')


class Item:
    """The app's icon on the bus, where the tray is one that has it there."""

    def __init__(self, desktop):
        self.bus = Bus(desktop.env["DBUS_SESSION_BUS_ADDRESS"])
        items = self.bus.get(WATCHER, "/StatusNotifierWatcher", WATCHER,
                             "RegisteredStatusNotifierItems")
        self.owner, _, path = items[-1].partition("/")
        self.path = "/" + (path or "StatusNotifierItem")

    def words(self):
        return self.bus.get(self.owner, self.path, ITEM, "ToolTip")[2]


def write(desktop, path, text):
    desktop.make(os.path.dirname(path))
    with open(os.path.join(desktop.home, path), "w", encoding="utf-8") as file:
        file.write(text)


def steady(session):
    """The bar as it looks when nothing changes any more."""
    seen = [None]

    def same():
        bar = session.bar()
        seen.append(bar)
        return bar if bar == seen[-2] else None
    return wait_for(same, "a bar that stays as it is")


def difference(before, after):
    """The middle of what has changed, on the screen; None when nothing has."""
    changed = [(x, y) for y, (old, new) in enumerate(zip(before, after)) if old != new
               for x in range(1024) if old[x * 3:x * 3 + 3] != new[x * 3:x * 3 + 3]]
    if not changed:
        return None
    xs, ys = [x for x, _ in changed], [y for _, y in changed]
    return (min(xs) + max(xs)) // 2, 768 - BAR + (min(ys) + max(ys)) // 2


class Checks:
    def __init__(self, name, session, program):
        self.name, self.session, self.program, self.failures = name, session, program, 0
        self.desktop, self.reader = session.desktop, ScreenReader(session.desktop)
        self.desktop.env["VERDO_LLM_BASE_URL"] = "http://127.0.0.1:1"
        self.desktop.env["DBUS_SYSTEM_BUS_ADDRESS"] = f"unix:path={self.desktop.home}/none"

    def that(self, what, is_so, seen=""):
        self.failures += not is_so
        print(f"{'ok  ' if is_so else 'FAIL'} {self.name}: {what}"
              + ("" if is_so else f" — {seen}"), flush=True)

    def window(self, is_there):
        return wait_for(lambda: bool(self.session.windows()) == is_there and [self.session.windows()],
                        f"{'a' if is_there else 'no'} window of the app")[0]

    def start_app(self):
        """Without its icon: it opens its window by itself, which is closed."""
        child = self.desktop.start(self.program)
        self.window(True)
        return child

    def close_window(self):
        self.session.press_escape()
        self.window(False)

    def icon(self, empty, when):
        """Finds the icon by what the bar has more than without it, and uses it."""
        place = wait_for(lambda: difference(empty, self.session.bar()), f"the icon {when}")
        place = difference(empty, steady(self.session))
        self.that(f"the icon is there {when}", place is not None)
        try:
            item = Item(self.desktop)
            words = item.words()
        except (GLib.Error, IndexError):
            item = None  # it is a window in the panel's
            self.desktop.run("xdotool", "mousemove", *map(str, place))
            words = wait_for(lambda: [node.name for node in self.reader.shown()
                                      if node.role == "tool tip"], "its words")[0]
        # This one tells the title of a window in its tray.
        is_title = item is None and self.name == "lxqt-panel"
        self.that("with its words", words == ("Verdo Driver" if is_title else WORDS), words)
        self.session.click(place, item)
        window = self.window(True)[0]
        self.that("a click opens the window", True)
        self.that("in its place", self.session.is_right(window, place), (window, place))
        self.close_window()

    def run(self):
        panel = self.session.start()
        empty = steady(self.session)
        app = self.start_app()
        self.close_window()
        self.icon(empty, "after the panel")
        self.desktop.stop(panel)
        panel = self.session.start()
        self.icon(empty, "after the panel's restart")
        self.desktop.run(self.program, "--quit")
        app.wait(10)
        wait_for(lambda: not difference(empty, self.session.bar()), "the icon's end")
        self.that("the icon goes with the app", True)
        self.desktop.stop(panel)

        app = self.start_app()
        self.close_window()
        self.desktop.run(self.program, "--show")
        self.window(True)
        self.that("without a tray --show opens the window", True)
        self.close_window()
        panel = self.session.start()
        self.icon(empty, "before the panel")
        self.desktop.run(self.program, "--quit")
        app.wait(10)
        self.desktop.stop(panel)
        if isinstance(self.session, Sway):
            self.start_app()
            NotifierTray(self.desktop).item()
            self.that("a tray is found that is there at once, and says no more", True)


SESSIONS = {"xfce4-panel": X11, "lxqt-panel": X11, "waybar": Sway}


def main(program, name):
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # what was started is ended
    session = SESSIONS[name](name)
    checks = Checks(name, session, program)
    try:
        checks.run()
    except Failed as why:
        checks.that("the check came to its end", False, str(why))
    finally:
        session.desktop.close()
    print(f"== {'all is well' if not checks.failures else f'{checks.failures} failed'}")
    return 1 if checks.failures else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
