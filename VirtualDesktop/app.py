"""The tray app on a desktop of its own, with the service, and with a person's hands and eyes."""

import configparser
import json
import os
import re
import subprocess
import urllib.request

from accessible import ScreenReader
from desktop import Desktop, wait_for
from panel import Panel, window_places

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
APP_ID = "com.pellmar.verdodriver"


def window_class():
    """Of its windows on X11: what desktops find its desktop entry by."""
    entry = configparser.ConfigParser(interpolation=None)
    entry.read(f"{ROOT}/packaging/desktop/{APP_ID}.desktop")
    return entry["Desktop Entry"]["StartupWMClass"]


NAME = window_class()
KEY = "sk-provider-key-0123456789-abcdefghij"
UNTIL_TOLD = "until [ -e $HOME/go ]; do sleep 0.05; done"  # a job
# Runs a job's payload as a shell script.
EXECUTOR = """#!/bin/sh
script=$(cat)
case "$script" in
  *listTaskSpaces*) echo '__SPACES__[]' ;;
  *completeTaskSpace*) echo closed ;;
  *) eval "$script" ;;
esac
"""


class Service:
    """One port and one token for life, over all its starts."""

    def __init__(self, desktop, program, token="vdt_0123456789-abcdefghij-12345678"):
        self.desktop, self.program, self.token = desktop, program, token
        self.port = self.starts = 0
        self.start()

    def start(self):
        self.child = self.desktop.start(self.program, "--port", str(self.port), "--token",
                                        self.token, "--provider-key", KEY)
        log = os.path.join(self.desktop.home, os.path.basename(self.program) + ".log")
        self.starts += 1

        def told():
            with open(log, encoding="utf-8") as file:
                found = re.findall(r"listening on (\S+)\n.*\ncontrol (\S+)\n", file.read())
            return found[-1] if len(found) == self.starts else None
        self.url, self.control = wait_for(told, "the local service")
        self.port = int(self.url.rsplit(":")[-1])

    def kill(self):
        self.child.kill()
        self.child.wait()

    def ask(self, path, body=None, method=None):
        request = urllib.request.Request(
            f"{self.url}/control/{path}", None if body is None else json.dumps(body).encode(),
            {"Authorization": f"Bearer {self.control}"}, method=method)
        with urllib.request.urlopen(request, timeout=20) as reply:
            return json.load(reply)


def write_script(desktop, path, text):
    """Into the home directory."""
    desktop.make(os.path.dirname(path))
    with open(os.path.join(desktop.home, path), "w", encoding="utf-8") as file:
        file.write(text)
    os.chmod(file.name, 0o755)


def serve(desktop, programs):
    """Starts the service and makes the app run its jobs, and ask its provider."""
    desktop.env["PATH"] = f"{desktop.make('bin')}:{desktop.env['PATH']}"
    write_script(desktop, "bin/ego-browser", EXECUTOR)
    service = Service(desktop, f"{programs}/verdo-local-service")
    desktop.env["VERDO_LLM_BASE_URL"] = f"{service.url}/llm"
    return service


class App:
    """A desktop with a window manager, a screen reader and the service; the app is not started."""

    def __init__(self, programs, display="1024x768"):
        self.desktop = Desktop(display)
        try:
            self.program = f"{programs}/verdo-driver-app"
            self.child = None
            self.desktop.env["DBUS_SYSTEM_BUS_ADDRESS"] = f"unix:path={self.desktop.home}/none"
            self.service = serve(self.desktop, programs)
            self.script("bin/xdg-open", '#!/bin/sh\necho "$1" >>"$HOME/opened"\n')
            self.panel = Panel(self.desktop)
            self.reader = ScreenReader(self.desktop)
        except BaseException:
            self.desktop.close()
            raise

    def script(self, path, text):
        write_script(self.desktop, path, text)

    def text(self, path):
        """Of a file in the home directory; empty when there is none."""
        try:
            with open(os.path.join(self.desktop.home, path), encoding="utf-8") as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def configure(self):
        """As after a pairing, with the secrets in files."""
        settings = f"[General]\nserverURL={self.service.url}\nsecretPlace=files\n"
        for path, text in ((".config/verdo-driver/settings.ini", settings),
                           (".local/share/verdo-driver/secrets/driver-token", self.service.token),
                           (".local/share/verdo-driver/secrets/llm-key", KEY)):
            self.script(path, text)
            os.chmod(os.path.join(self.desktop.home, path), 0o600)

    # As a program.

    def start(self, *arguments, through=()):
        self.child = self.desktop.start(*through, self.program, *arguments)

    def status(self):
        told = self.desktop.run(self.program, "--status").stdout
        return json.loads(told) if told else {}

    def wait(self, seconds=15, **wanted):
        """The first status in which these keys have these values."""
        def matching():
            self.seen = self.status()
            return self.seen if wanted.items() <= self.seen.items() else None
        try:
            return wait_for(matching, str(wanted), seconds)
        except Exception as why:
            raise AssertionError(f"{why}; the status is {self.seen}; the log says\n"
                                 + self.text("verdo-driver-app.log")[-2000:]) from None

    # As a window.

    def popover(self):
        """Its place on the screen; None while it is hidden."""
        return next((place for place in window_places(self.desktop, NAME) if place[2] > 64), None)

    def find(self, name, role=None, seconds=10):
        """What is shown with this name (a regular expression for all of it)."""
        return wait_for(lambda: next(
            (node for node in self.reader.shown() if re.fullmatch(name, node.name)
             and (role is None or node.role == role)), None), f"'{name}' in the popover", seconds)

    def click_at(self, place):
        x, y, width, height = place
        self.desktop.run("xdotool", "mousemove", str(x + width // 2), str(y + height // 2),
                         "click", "1")

    def click(self, name):
        self.click_at(self.find(name).place)

    def type(self, *keys):
        """Names of keys in <>, other texts as they are."""
        for key in keys:
            how = ["key", key.strip("<>")] if key.startswith("<") else ["type", "--delay", "2", key]
            self.desktop.run("xdotool", *how)

    def set_up(self):
        self.click("Server URL")
        self.type(self.service.url, "<Tab>", KEY)
        self.click("Connect to website")

    def icon_place(self):
        return wait_for(lambda: self.panel.icon(NAME), "the icon in the tray")

    def close(self):
        self.desktop.close()


def approve(programs, url):
    """Presses the button of the approve page in a real browser; gives the next page's text."""
    script = [f"{ROOT}/tests/Support/approve.mjs", f"{programs}/verdo-browser"]
    done = subprocess.run(["node", *script, url, "Approve"],
                          capture_output=True, text=True, timeout=50)
    if done.returncode:
        raise AssertionError(done.stdout + done.stderr)
    return done.stdout
