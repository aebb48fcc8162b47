"""The Secret Service as a desktop has it, and GNOME's program for it."""

from desktop import wait_for

SECRETS = "org.freedesktop.secrets"
ROOT = "/org/freedesktop/secrets"
PASSWORD = "pw"


def default_alias(desktop):
    reply = desktop.call(SECRETS, ROOT, "org.freedesktop.Secret.Service.ReadAlias", "default")
    return reply.split("'")[1] if reply else "/"


def is_locked(desktop):
    reply = desktop.call(SECRETS, default_alias(desktop), "org.freedesktop.DBus.Properties.Get",
                         "org.freedesktop.Secret.Collection", "Locked")
    return reply is None or "true" in reply


class GnomeKeyring:
    WINDOW = "Unlock .*Keyring"

    def __init__(self, desktop):
        self.desktop = desktop
        self.child = None

    def start(self):
        self.child = self.desktop.start("gnome-keyring-daemon", "--foreground", "--unlock",
                                        "--components=secrets", text=PASSWORD)
        wait_for(lambda: self.desktop.owner(SECRETS), "gnome-keyring")
        wait_for(lambda: not is_locked(self.desktop), "its default keyring")

    def lock(self):
        self.desktop.call(SECRETS, ROOT, "org.freedesktop.Secret.Service.Lock",
                          f"['{default_alias(self.desktop)}']")
        wait_for(lambda: is_locked(self.desktop), "the keyring's lock")
