"""The tray app takes over from a terminal driver, unattended and at the user's word."""

import os
import unittest

from accessible import complaints
from app import KEY, App
from desktop import wait_for

PLIST = "Library/LaunchAgents/com.verdo.driver.plist"
ENV_FILE = ".config/verdo/driver.env"
DATA = ".local/share/verdo/driver.py"
# Notes how it is called. The agent is loaded while a file says so.
LAUNCHCTL = """#!/bin/sh
cd
echo "$@" >>calls
[ "$1" = bootout ] && rm -f loaded
[ -e loaded ]
"""
# The app looks for launchctl in /bin: it sees another one there than everybody else.
WITH_LAUNCHCTL = ("unshare", "--mount", "sh", "-c",
                  'mount -t overlay overlay -o "lowerdir=$HOME/sbin:/usr/bin" /usr/bin; exec "$@"',
                  "sh")


class LegacyTest(unittest.TestCase):
    def setUp(self):
        self.app = App(os.environ["VERDO_PROGRAMS"])
        self.addCleanup(self.app.close)
        self.app.script("sbin/launchctl", LAUNCHCTL)
        tried = self.app.desktop.run(*WITH_LAUNCHCTL, "/bin/launchctl", "print")
        if not self.app.text("calls"):
            self.skipTest("no launchctl of our own in /bin: " + tried.stderr)
        self.app.panel.start()

    def install(self, token):
        self.app.service.ask("token", {"token": token})
        for path, text in ((PLIST, ""), (DATA, ""), ("loaded", ""), ("calls", ""), (ENV_FILE, (
                f"VERDO_SERVER_URL={self.app.service.url}/\nVERDO_DRIVER_TOKEN='{token}'\n"
                f"VERDO_LLM_API_KEY={KEY}\nVERDO_CAFFEINATE=job\n"))):
            self.app.script(path, text)

    def there(self):
        """What is left of the terminal driver."""
        return [path for path in (PLIST, DATA, "loaded", ENV_FILE)
                if os.path.exists(os.path.join(self.app.desktop.home, path))]

    def start(self, *arguments):
        self.app.start(*arguments, through=WITH_LAUNCHCTL)

    def test_it_takes_over(self):
        app = self.app
        log = lambda: app.text(".local/state/verdo-driver/driver.log")
        self.install("old-token-1111")
        self.start("-VERDOImportLegacy")
        app.wait(connection="online", hasKey=True, tokenLast4="····1111",
                 server=app.service.url)
        wait_for(lambda: "headless import: Imported: server, token, key, agent removed." in log(),
                 "the log's line")
        self.assertEqual(self.there(), [ENV_FILE])
        self.assertIn(f"bootout gui/{os.getuid()}/com.verdo.driver", app.text("calls"))
        app.click("Options")
        app.find("While a job runs", "combo box")
        app.desktop.run(app.program, "--quit")
        app.child.wait(20)

        # Now that a token is stored, only the user replaces it.
        self.install("new-token-2222")
        app.service.ask("token", {"token": "old-token-1111"})
        self.start("-VERDOImportLegacy")
        wait_for(lambda: "a token is already stored — use the banner"
                 in app.text("unshare.log"), "the refusal")
        app.wait(connection="online", tokenLast4="····1111")
        app.desktop.run(app.program, "--show")
        app.find(f"A terminal driver is installed on this computer, for {app.service.url}.* "
                 r"\(token ····2222, key ····" + KEY[-4:] + r"\)\.")
        self.assertEqual(complaints(app.reader.shown()), [])
        app.service.ask("token", {"token": "new-token-2222"})
        app.click("Import")
        app.find("A token ····1111 is already stored — press Import again to replace it with the "
                 "env file's ····2222.")
        self.assertEqual(app.status()["tokenLast4"], "····1111")
        app.click("Import")
        app.find(r"Imported: server, token, key\.")
        app.wait(connection="online", tokenLast4="····2222")
        self.assertEqual(self.there(), [PLIST, DATA, "loaded", ENV_FILE])
        app.click("Remove only")
        app.find(r"Terminal driver removed; .*driver\.env kept\.")
        self.assertEqual(self.there(), [ENV_FILE])
        self.install("new-token-2222")
        app.desktop.run(app.program, "--show")
        app.click("Delete env file")
        app.find(r"Env file deleted\.")
        self.assertEqual(self.there(), [PLIST, DATA, "loaded"])
