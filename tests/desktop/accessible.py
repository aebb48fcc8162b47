"""What a screen reader is told of a program's windows (AT-SPI). Switch it on before the program
starts."""

from gi.repository import GLib

from bus import PROPERTIES, Bus

A11Y = "org.a11y.atspi."
STATES = {4: "checked", 7: "editable", 8: "enabled", 11: "focusable", 12: "focused",
          20: "pressed", 25: "showing", 30: "visible"}


class Node:
    def __init__(self, bus, name, path):
        self.bus, self.owner, self.path = bus, name, path

    def ask(self, interface, method, arguments=None):
        return self.bus.call(self.owner, self.path, A11Y + interface, method, arguments)[0]

    def fact(self, name):
        return self.bus.get(self.owner, self.path, A11Y + "Accessible", name)

    @property
    def name(self):
        return self.fact("Name")

    @property
    def description(self):
        return self.fact("Description")

    @property
    def role(self):
        return self.ask("Accessible", "GetRoleName")

    @property
    def states(self):
        low, high = self.ask("Accessible", "GetState")
        bits = low | high << 32
        return {name for bit, name in STATES.items() if bits >> bit & 1}

    @property
    def place(self):
        """On the screen: x, y, width, height."""
        return self.ask("Component", "GetExtents", GLib.Variant("(u)", (0,)))

    def do(self, action=0):
        return self.ask("Action", "DoAction", GLib.Variant("(i)", (action,)))

    def children(self):
        return [Node(self.bus, *child) for child in self.ask("Accessible", "GetChildren")]

    def shown(self):
        """Itself and all that is seen within, from the top."""
        if "showing" in self.states:
            yield self
            for child in self.children():
                yield from child.shown()


class ScreenReader:
    def __init__(self, desktop):
        session = Bus(desktop.env["DBUS_SESSION_BUS_ADDRESS"])
        at = ("org.a11y.Bus", "/org/a11y/bus")
        session.call(*at, PROPERTIES, "Set", GLib.Variant(
            "(ssv)", ("org.a11y.Status", "IsEnabled", GLib.Variant("b", True))))
        self.bus = Bus(session.call(*at, "org.a11y.Bus", "GetAddress")[0])

    def shown(self):
        """Everything that is seen, of all programs."""
        root = Node(self.bus, "org.a11y.atspi.Registry", "/org/a11y/atspi/accessible/root")
        return [node for program in root.children() for node in program.shown()]
