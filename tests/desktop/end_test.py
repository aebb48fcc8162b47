"""Ends of the tray app that nobody asked it for."""

import os
import unittest

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
