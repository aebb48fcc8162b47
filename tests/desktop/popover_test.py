"""The popover as a window: where it comes up, what takes it away, where the keyboard leads."""

import os
import unittest

from accessible import complaints
from app import KEY, App
from desktop import wait_for

SCREEN = (1024, 768)
GAP, MARGIN = 5, 4  # px


def expected_place(icon, edge, size):
    """Beside the icon on the side of the screen's middle, centred on it, and on the screen."""
    place = []
    for axis, (near, far) in enumerate((("left", "right"), ("top", "bottom"))):
        begin, length, room = icon[axis], icon[axis + 2], SCREEN[axis]
        centred = begin + (length - 1) // 2 - size[axis] // 2
        place.append(begin + length + GAP if edge == near
                     else begin - GAP - size[axis] if edge == far
                     else max(MARGIN, min(centred, room - MARGIN - size[axis])))
    return tuple(place)


class PopoverTest(unittest.TestCase):
    display, has_panel = "1024x768", True

    def setUp(self):
        self.app = App(os.environ["VERDO_PROGRAMS"], self.display)
        self.addCleanup(self.app.close)
        if self.has_panel:
            self.app.panel.start()
        self.app.start()
        self.app.wait(popoverVisible=True)

    def show(self, visible=True):
        """Waits until it is shown, or hidden, and says where it is."""
        self.app.wait(popoverVisible=visible)
        if visible:
            return wait_for(self.app.popover, "the popover's window")
        return wait_for(lambda: not self.app.popover(), "the end of the popover's window")

    def test_its_place_and_its_end(self):
        app = self.app
        self.show()
        app.type("<Escape>")
        self.show(False)
        for edge in ("bottom", "left", "top", "right"):
            with self.subTest(edge):
                app.panel.start(edge)
                icon = app.icon_place()
                app.click_at(icon)
                place = self.show()
                self.assertEqual(place[:2], expected_place(icon, edge, place[2:]))
                app.click("Options")  # which makes it higher
                place = wait_for(lambda: app.popover() if app.popover() != place else None,
                                 "another height")
                self.assertEqual(place[:2], expected_place(icon, edge, place[2:]))
                app.find("Options").press()
                wait_for(lambda: app.popover() != place, "the old height")
                app.click_at(icon)
                self.show(False)
                for end in (lambda: app.click_at((500, 60, 1, 1)),  # where nothing is
                            lambda: app.type("<Escape>")):
                    self.assertEqual(app.desktop.run(app.program).returncode, 0)  # a second start
                    self.show()
                    end()
                    self.show(False)
        self.assertIsNone(app.child.poll())

    def focused(self):
        return next((node for node in self.app.reader.shown() if "focused" in node.states), None)

    def walk(self):
        """The names of the controls in the order in which the tab key leads to them."""
        begin = last = self.focused()
        names = []
        while True:
            self.app.type("<Tab>")
            last = wait_for(lambda: (now := self.focused()) and now.path != last.path and now,
                            f"the focus behind '{last.name}'")
            names.append(last.name)
            if last.path == begin.path:
                return names
            self.assertLess(len(names), 30)

    def go(self, name):
        """To this control, with the tab key alone."""
        for _ in range(30):
            if self.focused().name == name:
                return
            self.app.type("<Tab>")
        self.fail(f"no '{name}' in reach")

    def check_walk(self, *names):
        """The tab key leads down the screen, and to these controls."""
        shown = [node for node in self.app.reader.shown()
                 if {"focusable", "enabled"} <= node.states]
        shown.sort(key=lambda node: (node.place[1], node.place[0]))
        self.assertEqual([node.name for node in shown], list(names))
        walked = self.walk()
        begin = walked.index(names[0])
        self.assertEqual(walked[begin:] + walked[:begin], list(names))
        self.assertEqual(complaints(self.app.reader.shown()), [])

    def test_the_keyboard(self):
        app = self.app
        self.check_walk("Setup", "Server URL", "DeepSeek key", "Options", "Open log", "Quit")
        self.go("Server URL")
        app.type(app.service.url, "<Tab>", KEY)
        self.assertNotIn(KEY, app.find("DeepSeek key").text)
        app.type("<Tab>")
        self.assertEqual(self.focused().name, "Connect to website")
        app.type("<Return>")
        code = app.find("Code .*").name
        self.check_walk("Setup", code, "Copy the code", "Open the approve page", "Cancel",
                        "Options", "Open log", "Quit")
        app.service.ask(f"pairings/{code.split()[1]}/approve", method="POST")
        app.wait(connection="online")
        for fold, key in (("Setup", "<space>"), ("Options", "<Return>")):
            self.go(fold)
            self.assertEqual(self.focused().description, "Folded")
            app.type(key)
            wait_for(lambda: self.focused().description == "Open", "an open fold")
        self.check_walk("Restart", "Stop", "Setup", "Server URL", "DeepSeek key",
                        "Remove the DeepSeek key", "Connect to website", "Forget token", "Options",
                        "Launch at login", "Start automatically", "While connected",
                        "Check the driver", "Remove everything…", "Open log", "Quit")
        self.go("Check the driver")
        app.type("<Return>")
        app.find("All that is needed works.", seconds=20)
        self.assertEqual(self.focused().name, "Done")
        app.type("<Return>")
        wait_for(lambda: "Done" not in {node.name for node in app.reader.shown()},
                 "the end of the check")
        self.go("Launch at login")
        app.type("<space>")
        wait_for(lambda: os.listdir(app.desktop.make(".config/autostart")), "the autostart entry")
        self.go("Forget token")
        app.type("<space>")
        wait_for(lambda: self.focused().name == "Cancel", "the way out of the question")
        app.type("<Return>")
        app.find("Forget token")
        self.go("Setup")
        app.type("<Return>")
        wait_for(lambda: self.focused().description == "Folded", "a closed fold")
        app.type("<Escape>")
        self.show(False)


class SmallScreenTest(PopoverTest):
    display, has_panel = "640x320", False
    test_its_place_and_its_end = test_the_keyboard = None

    def test_hides_no_button(self):
        """Neither beside the icon nor, without a tray, as an ordinary window."""
        app = self.app
        for is_placed in (False, True):
            if is_placed:
                app.type("<Escape>")
                self.show(False)
                app.panel.start()
                app.click_at(app.icon_place())
            place = self.show()
            self.assertLessEqual(place[1] + place[3], 320)
            if not is_placed:
                self.go("Options")
                app.type("<Return>")
            for name in ("Remove everything…", "Quit", "Setup"):
                self.go(name)
                place = self.focused().place
                self.assertGreaterEqual(place[1], 0, name)
                self.assertLessEqual(place[1] + place[3], 320, name)
