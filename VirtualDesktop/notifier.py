"""A tray without windows, as modern desktops have it: icons are objects on the bus
(StatusNotifierItem), which are read and clicked there."""

from gi.repository import Gio, GLib

from bus import Bus
from desktop import wait_for

WATCHER = "org.kde.StatusNotifierWatcher"
ITEM = "org.kde.StatusNotifierItem"
INTERFACE = f"""<node><interface name="{WATCHER}">
  <method name="RegisterStatusNotifierItem"><arg type="s" direction="in"/></method>
  <property name="RegisteredStatusNotifierItems" type="as" access="read"/>
  <property name="IsStatusNotifierHostRegistered" type="b" access="read"/>
  <property name="ProtocolVersion" type="i" access="read"/>
</interface></node>"""


class NotifierTray:
    """Watcher and host at once."""

    def __init__(self, desktop):
        self.items = []  # names on the bus
        self.bus = Bus(desktop.env["DBUS_SESSION_BUS_ADDRESS"])
        self.bus.connection.register_object(
            "/StatusNotifierWatcher", Gio.DBusNodeInfo.new_for_xml(INTERFACE).interfaces[0],
            self.called, self.asked, None)
        self.bus.own(WATCHER)

    def called(self, connection, sender, path, interface, method, arguments, invocation):
        self.items.append(sender)
        invocation.return_value(None)

    def asked(self, connection, sender, path, interface, name):
        return {"RegisteredStatusNotifierItems": GLib.Variant("as", self.items),
                "IsStatusNotifierHostRegistered": GLib.Variant("b", True),
                "ProtocolVersion": GLib.Variant("i", 0)}[name]

    def item(self):
        """The latest icon."""
        wait_for(lambda: self.items, "an icon in the tray")
        return self.items[-1]

    def read(self, prop):
        """Title, Status, IconName, IconPixmap (width, height, ARGB bytes) or ToolTip (icon name,
        icon, title, text)."""
        return self.bus.get(self.item(), "/StatusNotifierItem", ITEM, prop)

    def click(self, x=0, y=0):
        self.bus.call(self.item(), "/StatusNotifierItem", ITEM, "Activate",
                      GLib.Variant("(ii)", (x, y)))
