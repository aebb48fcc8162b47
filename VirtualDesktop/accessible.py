"""What a screen reader is told of a program's windows (AT-SPI). Switch it on before the program
starts."""

from gi.repository import GLib

from bus import PROPERTIES, Bus

A11Y = "org.a11y.atspi."
STATES = {8: "enabled", 11: "focusable", 12: "focused", 25: "showing"}
CONTROLS = {"push button", "check box", "text", "combo box", "label"}  # that can have the focus


class Node:
    """As it was when it was looked at."""

    def __init__(self, bus, name, path):
        self.bus, self.owner, self.path = bus, name, path
        low, high = self.ask("Accessible", "GetState")
        self.states = {name for bit, name in STATES.items() if (low | high << 32) >> bit & 1}
        self.role = self.ask("Accessible", "GetRoleName")
        self.name = self.fact("Name")

    def ask(self, interface, method, arguments=None):
        return self.bus.call(self.owner, self.path, A11Y + interface, method, arguments)[0]

    def fact(self, name):
        return self.bus.get(self.owner, self.path, A11Y + "Accessible", name)

    @property
    def description(self):
        return self.fact("Description")

    @property
    def place(self):
        """On the screen: x, y, width, height."""
        return self.ask("Component", "GetExtents", GLib.Variant("(u)", (0,)))

    @property
    def text(self):
        """Of a field, as far as it is told."""
        return self.ask("Text", "GetText", GLib.Variant("(ii)", (0, -1)))

    def press(self):
        self.ask("Action", "DoAction", GLib.Variant("(i)", (0,)))

    @property
    def labels(self):
        """What stands beside it to name it."""
        return [Node(self.bus, *label).name for kind, labels in
                self.ask("Accessible", "GetRelationSet") if kind == 2 for label in labels]

    def shown(self):
        """All that is seen within, from the top."""
        for name, path in self.ask("Accessible", "GetChildren"):
            try:
                child = Node(self.bus, name, path)
                if "showing" in child.states:
                    yield child
                    yield from child.shown()
            except GLib.Error:  # it is gone meanwhile
                pass


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
        return list(root.shown())


def complaints(nodes):
    """What someone who cannot see these nodes would miss."""
    found = [] if "dialog" in [node.role for node in nodes] else ["no window"]
    for node in nodes:
        is_control = "focusable" in node.states
        if is_control and node.role not in CONTROLS:
            found.append(f"'{node.name}' is a {node.role}")
        if (is_control or node.role in ("label", "graphic")) and not node.name:
            found.append(f"a {node.role} without a name at {node.place}")
        # Qt tells a combo box's value for its name.
        if node.role == "combo box" and not node.labels:
            found.append(f"nothing names the choice '{node.name}'")
    return found
