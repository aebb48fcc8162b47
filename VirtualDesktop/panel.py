"""A window manager, and a panel at any edge of the screen whose tray takes icons through XEmbed."""

import ctypes
import os
import re

from desktop import wait_for


class Panel:
    """The window manager; the panel comes with start()."""

    SIZE = 32

    def __init__(self, desktop):
        self.desktop, self.child = desktop, None
        desktop.start("openbox")
        x11 = self.x11 = ctypes.CDLL("libX11.so.6")
        x11.XOpenDisplay.restype = ctypes.c_void_p
        x11.XInternAtom.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int]
        x11.XInternAtom.restype = x11.XGetSelectionOwner.restype = ctypes.c_ulong
        x11.XGetSelectionOwner.argtypes = [ctypes.c_void_p, ctypes.c_ulong]
        self.display = x11.XOpenDisplay(desktop.env["DISPLAY"].encode())
        self.selection = x11.XInternAtom(self.display, b"_NET_SYSTEM_TRAY_S0", 0)
        manager = x11.XInternAtom(self.display, b"WM_S0", 0)
        wait_for(lambda: x11.XGetSelectionOwner(self.display, manager), "the window manager")

    def start(self, edge="bottom"):
        """Puts the panel there, in the place of one at another edge."""
        self.stop()
        place = (f"center {edge} vertical" if edge in ("left", "right")
                 else f"{edge} center horizontal")
        settings = os.path.join(self.desktop.home, "tint2rc")
        with open(settings, "w", encoding="utf-8") as file:
            file.write(f"panel_items = TSC\npanel_position = {place}\n"
                       f"panel_size = 100% {self.SIZE}\nstrut_policy = follow_size\n")
        self.child = self.desktop.start("tint2", "-c", settings)
        wait_for(self.has_tray, "the panel's tray")

    def stop(self):
        if self.child:
            self.desktop.stop(self.child)
            wait_for(lambda: not self.has_tray(), "the end of the panel's tray")

    def has_tray(self):
        return self.x11.XGetSelectionOwner(self.display, self.selection)

    def icon(self, program):
        """Where this program's icon is: x, y, width, height; None while it is nowhere."""
        places = window_places(self.desktop, program)
        return next((place for place in places if place[2] == place[3] == self.SIZE), None)


def window_places(desktop, program):
    """Where this program's visible windows are: x, y, width, height of each."""
    found = desktop.run("xdotool", "search", "--onlyvisible", "--class", f"^{program}$").stdout
    places = [geometry(desktop, window) for window in found.split()]
    return [place for place in places if place]


def geometry(desktop, window):
    """A window's place on the screen: x, y, width, height."""
    told = desktop.run("xdotool", "getwindowgeometry", "--shell", window).stdout
    facts = dict(re.findall(r"(\w+)=(-?\d+)", told))
    return tuple(int(facts[key]) for key in ("X", "Y", "WIDTH", "HEIGHT")) if facts else None
