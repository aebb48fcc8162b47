"""Ends of the tray app: unasked for, under a check, and to start anew."""

import os
import shutil
import unittest

from accessible import complaints
from app import UNTIL_TOLD, App
from desktop import wait_for


class EndTest(unittest.TestCase):
    def setUp(self):
        self.app = App(os.environ["VERDO_PROGRAMS"])
        self.addCleanup(self.app.close)

    def test_the_display_goes_away_under_a_job(self):
        app = self.app
        app.configure()
        app.start()
        app.wait(connection="online")
        app.service.ask("jobs", {"label": "ada:mail",
                                 "payload": f"echo $$ >$HOME/job; {UNTIL_TOLD}"})
        job = int(wait_for(lambda: app.text("job"), "the job"))
        app.desktop.display.kill()
        self.assertEqual(app.child.wait(20), 1)
        self.assertFalse(os.path.exists(f"/proc/{job}"))
        self.assertIn("job 1: finished", app.text(".local/state/verdo-driver/driver.log"))

    def test_the_program_is_upgraded_and_removed(self):
        app = self.app
        built, app.program = app.program, os.path.join(app.desktop.make("app"), "verdo-driver-app")

        def put():
            shutil.copy(built, app.program + ".new")
            os.rename(app.program + ".new", app.program)
        put()
        app.configure()
        app.start("--show")
        app.wait(connection="online", restartDue=False)
        app.service.ask("jobs", {"label": "ada:mail", "payload": UNTIL_TOLD})
        app.wait(connection="busy")
        put()
        app.wait(restartDue=True)
        app.click("Restart the app")
        app.find(r"A job is running and will be ended\. Restart anyway\?")
        app.click("Restart the app")
        # The same process, so that whoever has started it still knows it.
        app.wait(connection="online", restartDue=False, popoverVisible=True)
        self.assertEqual(os.readlink(f"/proc/{app.child.pid}/exe"), app.program)
        self.assertIn("job 1: finished", app.text(".local/state/verdo-driver/driver.log"))
        gone, app.program = app.program, built
        os.remove(gone)
        self.assertFalse(app.status()["restartDue"])
        app.desktop.run(app.program, "--quit")
        self.assertEqual(app.child.wait(20), 0)

    def test_leaves_a_check_behind(self):
        app = self.app
        app.configure()
        app.start("--show")
        app.wait(connection="online")
        app.click("Stop")  # what it asks the executor itself would hold the quit up
        app.wait(title="Stopped")
        app.script("bin/ego-browser", "#!/bin/sh\ntrap '' TERM\necho $$ >$HOME/asked\n"
                   "while :; do sleep 0.1; done\n")
        app.click("Options")
        app.click("Check the driver")
        asked = int(wait_for(lambda: app.text("asked"), "the check of the executor"))
        app.find("the service knows this driver.*", "label")
        app.find("Cancel")
        self.assertEqual(complaints(app.reader.shown()), [])
        app.desktop.run(app.program, "--quit")
        self.assertEqual(app.child.wait(20), 0)
        self.assertFalse(os.path.exists(f"/proc/{asked}"))
