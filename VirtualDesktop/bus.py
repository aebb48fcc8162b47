"""Connections to a desktop's buses. Calls that come in are answered on a thread."""

import threading

from gi.repository import Gio, GLib

PROPERTIES = "org.freedesktop.DBus.Properties"
threading.Thread(target=GLib.MainLoop().run, daemon=True).start()


class Bus:
    def __init__(self, address):
        flags = Gio.DBusConnectionFlags
        self.connection = Gio.DBusConnection.new_for_address_sync(
            address, flags.AUTHENTICATION_CLIENT | flags.MESSAGE_BUS_CONNECTION, None, None)
        self.connection.set_exit_on_close(False)

    def call(self, name, path, interface, method, arguments=None):
        """The reply's values. Throws GLib.Error."""
        return self.connection.call_sync(name, path, interface, method, arguments, None,
                                         Gio.DBusCallFlags.NONE, 5000, None).unpack()

    def get(self, name, path, interface, prop):
        return self.call(name, path, PROPERTIES, "Get",
                         GLib.Variant("(ss)", (interface, prop)))[0]

    def own(self, name):
        self.call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                  "RequestName", GLib.Variant("(su)", (name, 4)))
