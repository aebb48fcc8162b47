"""Trays that come and go while the app runs, and what they would make of its words."""

import os
import unittest

from app import UNTIL_TOLD, App
from desktop import wait_for
from notifier import NotifierTray
from popover_test import expected_place


class TrayTest(unittest.TestCase):
    def setUp(self):
        self.app = App(os.environ["VERDO_PROGRAMS"])
        self.addCleanup(self.app.close)

    def show(self):
        """By a second start."""
        self.assertEqual(self.app.desktop.run(self.app.program).returncode, 0)
        return wait_for(self.app.popover, "the popover's window")

    def hide(self):
        wait_for(lambda: "Verdo Driver" in self.app.desktop.run(
            "xdotool", "getwindowfocus", "getwindowname").stdout, "the keyboard")
        self.app.type("<Escape>")
        wait_for(lambda: not self.app.popover(), "the popover's end")

    def test_that_comes_and_goes(self):
        app = self.app
        app.start()
        app.wait(popoverVisible=True)
        self.hide()
        for edge in ("bottom", "top"):
            with self.subTest(edge):
                self.show()
                app.click_at((1000, 10, 1, 1))  # where nothing is
                self.assertTrue(app.status()["popoverVisible"])  # an ordinary window stays
                self.show()
                self.hide()
                app.panel.start(edge)
                icon = app.icon_place()
                app.click_at(icon)
                place = wait_for(app.popover, "the popover")
                self.assertEqual(place[:2], expected_place(icon, edge, place[2:]))
                self.hide()
                app.panel.stop()

    def test_that_takes_words_for_markup(self):
        app = self.app
        app.configure()
        tray = NotifierTray(app.desktop)
        app.start()
        app.wait(connection="online")
        app.service.ask("jobs", {"label": "ada:<b>R&D</b>", "payload": UNTIL_TOLD})
        status = app.wait(connection="busy")
        self.assertIn("<b>R&D</b>", status["tooltip"])
        words = wait_for(lambda: "busy" in (told := tray.read("ToolTip")[2]) and told, "its words")
        self.assertTrue(words.endswith("busy: ‹b›R+D‹/b›"), words)
        app.script("go", "")
        app.wait(connection="online")
