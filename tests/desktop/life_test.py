"""The life of the tray app as a person sees it, with both kinds of tray: from the first start to
the last quit, with a real browser, a real keyring, and a service that comes and goes."""

import os
import unittest

from accessible import complaints
from app import KEY, UNTIL_TOLD, App, approve
from desktop import wait_for
from keyring import PASSWORD, GnomeKeyring
from notifier import NotifierTray
from screen import picture, save

WORDS = {"notSetUp": "not set up", "busy": "online · busy"}


class Embedded:
    """The icon in tint2's panel, a window of the app's."""

    def __init__(self, app):
        self.app, self.places = app, 0
        app.panel.start()

    def icon(self):
        return b"".join(picture(self.app.desktop, self.app.icon_place()))

    def tooltip(self):
        x, y = self.app.icon_place()[:2]
        self.places += 1  # pointed at where it was left, Qt shows none
        self.app.desktop.run("xdotool", "mousemove", str(x + 4 + self.places), str(y + 9))
        text = self.app.find("Verdo Driver —.*", "tool tip").name
        self.app.desktop.run("xdotool", "mousemove", "1", "1")
        wait_for(lambda: not [node for node in self.app.reader.shown() if node.role == "tool tip"],
                 "the end of the tool tip")
        return text

    def click(self):
        self.app.click_at(self.app.icon_place())


class OnTheBus:
    """The icon as an object on the bus."""

    def __init__(self, app):
        self.tray = NotifierTray(app.desktop)
        self.click = self.tray.click

    def icon(self):
        return bytes(max(self.tray.read("IconPixmap"))[2])

    def tooltip(self):
        return self.tray.read("ToolTip")[2]


class LifeTest(unittest.TestCase):
    def setUp(self):
        self.app = App(os.environ["VERDO_PROGRAMS"])
        self.addCleanup(self.app.close)
        self.service, self.icons, self.pictures = self.app.service, {}, 0

    def see(self, connection, title, action="none", **wanted):
        """Waits for this state, and looks whether everything tells it: the status, the icon in the
        tray, its tool tip, and the popover where it is open."""
        app = self.app
        status = app.wait(connection=connection, title=title, action=action, icon=connection,
                          word=WORDS.get(connection, connection), **wanted)
        self.assertTrue(status["tooltip"].startswith("Verdo Driver — " + status["word"]))
        looks = (status["icon"], status["updateAvailable"])

        def is_drawn():
            icon = self.tray.icon()
            if looks in self.icons:
                return icon == self.icons[looks]
            if icon in self.icons.values() or icon != self.tray.icon():
                return False
            self.icons[looks] = icon
            return True
        wait_for(is_drawn, f"an icon that tells {looks} from {list(self.icons)}")
        self.assertEqual(self.tray.tooltip(), status["tooltip"])
        if status["popoverVisible"]:
            app.find(title, "label")
            app.find(status["word"], "graphic")
            self.inspect(connection)
        return status

    def inspect(self, what):
        """Looks at the popover as it is. VERDO_PICTURES names a directory for pictures of it."""
        self.assertEqual(complaints(self.app.reader.shown()), [])
        self.pictures += 1
        if directory := os.environ.get("VERDO_PICTURES"):
            os.makedirs(directory, exist_ok=True)
            save(picture(self.app.desktop), f"{directory}/{self.pictures:02}-{what}.png")

    def type_setup(self):
        app = self.app
        self.see("notSetUp", "Not set up", "setUp", popoverVisible=True,
                 tooltip="Verdo Driver — not set up", secretStore={
                     "kind": None, "locked": False, "unavailable": False})
        app.set_up()

    def pair(self, times=1):
        """The pairing whose approve page the app has opened in the browser."""
        wait_for(lambda: self.app.text("opened").count("\n") == times, "the browser's start")
        pairing = self.app.status()["pairing"]
        self.assertEqual(pairing["state"], "waiting")
        self.assertEqual(self.app.text("opened").split()[-1], pairing["verifyURL"])
        self.app.find("Code " + pairing["userCode"])
        self.inspect("pairing")
        return pairing

    def queue(self, *lanes):
        for lane in lanes:
            self.service.ask("jobs", {"label": lane, "payload": UNTIL_TOLD})

    def restart(self):
        self.service.ask("outage", {"kind": "hang", "seconds": 60})
        self.app.click("Restart")
        self.see("connecting", "Connecting…", detail=self.service.url)
        self.service.ask("outage", method="DELETE")
        self.see("online", "Online")

    def revoke(self):
        """The driver hears of it at the next job."""
        self.service.ask("token", {"token": None})
        self.queue("ada:news")
        self.see("stopped", "Disconnected", "fixToken")

    def reconnect(self):
        """First in vain, while the service is gone, and then to one that is back."""
        self.app.click("Restart")
        self.see("offline", "Server unreachable", "retryNow")
        self.service.start()
        self.app.click("Try now")
        self.see("online", "Online")

    def is_ended(self):
        self.assertEqual(self.app.child.wait(20), 0)
        self.assertEqual(self.app.status(), {})

    def has_seen_all_shapes(self):
        self.assertEqual({shape for shape, _ in self.icons},
                         {"notSetUp", "connecting", "online", "busy", "offline", "stopped"})

    def test_with_a_panel(self):
        app, service = self.app, self.service
        self.tray = Embedded(app)
        keyring = GnomeKeyring(app.desktop)
        keyring.start()
        app.start()
        self.type_setup()
        self.assertIn("Approved", approve(os.environ["VERDO_PROGRAMS"], self.pair()["verifyURL"]))
        self.see("online", "Online", user="local", hasToken=True, hasKey=True, secretStore={
            "kind": "secretService", "locked": False, "unavailable": False})
        self.restart()

        self.queue("ada:mail", "ada:crm")
        self.see("busy", "Online · busy", busyLanes=["ada:crm", "ada:mail"],
                 tooltip="Verdo Driver — online · busy: crm, mail")
        for lane in ("mail", "crm"):
            app.find(lane, "label")
        app.script("go", "")
        app.find("2 jobs served · job . · ada:.* · exit 0", "label")
        self.see("online", "Online", servedCount=2)

        service.kill()
        app.find("poll failed .* — retrying in . s", "label")
        self.see("online", "Reconnecting…")
        self.reconnect()

        self.revoke()
        service.token = "another-token-9876"
        service.ask("token", {"token": service.token})
        service.ask("manifest", {"app_version": "2099.1.0"}, "PATCH")
        app.click("Connect to website")
        approve(os.environ["VERDO_PROGRAMS"], self.pair(2)["verifyURL"])
        self.see("online", "Online", updateAvailable=True, tokenLast4="····9876",
                 tooltip="Verdo Driver — online · update available")
        app.find("Version 2099.1.0 is available")

        keyring.lock()
        app.desktop.run(app.program, "--quit")
        self.is_ended()
        app.start()
        self.see("offline", "Waiting for the keyring", "unlock", popoverVisible=False,
                 updateAvailable=True, secretStore={
                     "kind": "secretService", "locked": True, "unavailable": False})
        self.tray.click()
        app.find("Unlock…")
        self.inspect("locked")
        app.click("Unlock…")
        app.desktop.press(keyring.WINDOW, PASSWORD, "<Return>")
        self.see("online", "Online", tokenLast4="····9876")

        os.remove(os.path.join(app.desktop.home, "go"))
        self.queue("ada:mail")
        self.see("busy", "Online · busy")
        if not app.popover():
            self.tray.click()
        app.click("Quit")
        app.find(r"A job is running\. Quit anyway\?")
        self.inspect("quit")
        app.click("Cancel")
        app.click("Quit")
        app.find(r"A job is running\. Quit anyway\?")
        app.click("Quit")
        self.is_ended()
        self.has_seen_all_shapes()
        for secret in (KEY, service.token):
            for text in ("verdo-driver-app.log", ".local/state/verdo-driver/driver.log",
                         ".config/verdo-driver/settings.ini"):
                self.assertNotIn(secret, app.text(text))
        self.assertIn("» connected as local", app.text(".local/state/verdo-driver/driver.log"))

    def test_with_icons_on_the_bus(self):
        app, service = self.app, self.service
        self.tray = OnTheBus(app)
        app.start()
        self.type_setup()
        service.ask(f"pairings/{self.pair()['userCode']}/approve", method="POST")
        self.see("online", "Online")
        self.restart()
        self.tray.click()
        app.wait(popoverVisible=False)

        def is_shown():  # not at once: what follows that soon belongs to the same click
            self.tray.click()
            return app.status()["popoverVisible"]
        wait_for(is_shown, "the popover after another click")
        service.kill()
        self.reconnect()
        self.revoke()
        service.ask("token", {"token": service.token})
        app.click("Connect to website")
        service.ask(f"pairings/{self.pair(2)['userCode']}/approve", method="POST")
        self.see("online", "Online")
        self.queue("ada:mail")
        self.see("busy", "Online · busy", tooltip="Verdo Driver — online · busy: mail")
        app.desktop.run(app.program, "--quit")
        self.is_ended()
        self.has_seen_all_shapes()
        self.assertEqual(service.ask("jobs/2")["state"], "done")
