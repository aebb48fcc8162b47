"""The password managers of people's desktops, set up as they come."""

import base64
import os
import subprocess
import uuid

from desktop import wait_for
from keyring import PASSWORD, SECRETS, default_alias, is_locked


class KeePassXC:
    """With its own settings but for the Secret Service, which is switched on."""

    MAIN, ACCESS, UNLOCK = "db.* - KeePassXC", "Access Request", "Unlock Database"

    def __init__(self, desktop):
        self.desktop = desktop
        self.database = os.path.join(desktop.home, "db.kdbx")
        root = uuid.uuid4()
        xml = os.path.join(desktop.home, "db.xml")
        with open(xml, "w", encoding="utf-8") as file:
            file.write(
                '<?xml version="1.0" encoding="utf-8"?><KeePassFile><Meta><CustomData><Item>'
                f"<Key>FDO_SECRETS_EXPOSED_GROUP</Key><Value>{{{root}}}</Value></Item></CustomData>"
                f"</Meta><Root><Group><UUID>{base64.b64encode(root.bytes).decode()}</UUID>"
                "<Name>Root</Name></Group></Root></KeePassFile>")
        desktop.run("keepassxc-cli", "import", "-p", xml, self.database,
                    text=f"{PASSWORD}\n{PASSWORD}\n")
        settings = os.path.join(desktop.make(".config/keepassxc"), "keepassxc.ini")
        with open(settings, "w", encoding="utf-8") as file:
            file.write("[General]\nConfigVersion=2\nUpdateCheckMessageShown=true\n"
                       "[GUI]\nCheckForUpdates=false\n[FdoSecrets]\nEnabled=true\n")
        self.child = None

    def start(self):
        self.child = self.desktop.start("keepassxc", "--pw-stdin", self.database,
                                        text=PASSWORD + "\n")
        wait_for(lambda: self.desktop.owner(SECRETS), "KeePassXC")
        wait_for(lambda: not is_locked(self.desktop), "its database")

    def stop(self):
        self.desktop.stop(self.child)
        wait_for(lambda: not self.desktop.owner(SECRETS), "KeePassXC's end")

    def lock(self):
        self.desktop.press(self.MAIN, "<ctrl+l>")
        wait_for(lambda: is_locked(self.desktop), "the database's lock")

    def close_database(self):
        self.desktop.press(self.MAIN, "<ctrl+w>")
        wait_for(lambda: default_alias(self.desktop) == "/", "the database's end")


class KWallet:
    NAME, WINDOW = "org.kde.kwalletd5", "KDE Wallet Service"

    def __init__(self, desktop):
        self.desktop = desktop
        with open(os.path.join(desktop.home, ".config/kwalletrc"), "w", encoding="utf-8") as file:
            file.write("[Wallet]\nEnabled=true\nFirst Use=false\nDefault Wallet=kdewallet\n")

    def call(self, method, *arguments):
        return self.desktop.call(self.NAME, "/modules/kwalletd5", "org.kde.KWallet." + method,
                                 *arguments)

    def is_open(self):
        return self.call("isOpen", "kdewallet") == "(true,)"

    def open(self):
        return subprocess.Popen(
            ["gdbus", "call", "--session", "--dest", self.NAME, "--object-path",
             "/modules/kwalletd5", "--method", "org.kde.KWallet.open", "kdewallet", "0", "checks"],
            env=self.desktop.env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def make_wallet(self):
        """As its window for the first use has it: an ordinary wallet with a password."""
        self.desktop.call("org.freedesktop.DBus", "/", "org.freedesktop.DBus.StartServiceByName",
                          self.NAME, "0")
        opening = self.open()
        first = self.desktop.window(self.WINDOW)
        self.desktop.click(self.WINDOW, 150, 168)  # "Classic", the other kind wants a GPG key
        self.desktop.press(self.WINDOW, "<Return>")
        wait_for(lambda: self.desktop.windows(self.WINDOW) not in ([], [first]), "its second window")
        self.desktop.press(self.WINDOW, PASSWORD, "<Tab>", PASSWORD, "<Return>")
        wait_for(self.is_open, "the wallet")
        opening.wait(5)

    def stop(self):
        self.desktop.call(self.NAME, "/MainApplication", "org.qtproject.Qt.QCoreApplication.quit")
        wait_for(lambda: not self.desktop.owner(self.NAME) and not self.desktop.owner(SECRETS),
                 "KWallet's end")

    def unlock_by_hand(self):
        opening = self.open()
        self.desktop.press(self.WINDOW, PASSWORD, "<Return>")
        wait_for(self.is_open, "the wallet")
        opening.wait(5)

    def close(self):
        self.call("close", "kdewallet", "true")
        wait_for(lambda: not self.is_open(), "the wallet's end")
