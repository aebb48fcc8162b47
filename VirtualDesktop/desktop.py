"""A desktop session of its own: display, session bus, home. It ends what it has started, and what
its bus has started, by process id."""

import os
import queue
import re
import shutil
import signal
import subprocess
import tempfile
import threading
import time

WAIT = 10  # seconds for anything that should happen at once


class Failed(Exception):
    pass


def wait_for(condition, what, seconds=WAIT):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        value = condition()
        if value:
            return value
        time.sleep(0.05)
    raise Failed(f"{what}: not within {seconds} s")


class Desktop:
    def __init__(self, display="1024x768"):
        self.make_home()
        self.env = {
            "PATH": "/usr/bin:/bin",
            "LC_ALL": "C.UTF-8",
            "QT_LOGGING_RULES": "*.debug=false",
            **self.places(),
        }
        # How a program that was built with sanitizers goes on.
        self.env.update({k: v for k, v in os.environ.items() if k.endswith("SAN_OPTIONS")})
        try:
            if display:
                self.start_display(display)
            address = f"unix:path={self.home}/run/bus"
            self.env["DBUS_SESSION_BUS_ADDRESS"] = address
            self.bus = self.start("dbus-daemon", "--session", "--nofork", f"--address={address}")
            wait_for(lambda: self.call("org.freedesktop.DBus", "/", "org.freedesktop.DBus.GetId"),
                     "the session bus")
        except BaseException:
            self.close()
            raise

    def make_home(self):
        self.home = tempfile.mkdtemp(prefix="verdo-desktop-")
        self.children = []

    def places(self):
        """The environment variables by which programs find their files."""
        return {
            "HOME": self.home,
            "XDG_RUNTIME_DIR": self.make("run"),
            "XDG_CONFIG_HOME": self.make(".config"),
            "XDG_DATA_HOME": self.make(".local/share"),
            "XDG_STATE_HOME": self.make(".local/state"),
            "XDG_CACHE_HOME": self.make(".cache"),
        }

    def make(self, path):
        full = os.path.join(self.home, path)
        os.makedirs(full, mode=0o700, exist_ok=True)
        return full

    def start_display(self, size):
        read, write = os.pipe()
        self.display = self.start(
            "Xvfb", "-displayfd", str(write), "-screen", "0", f"{size}x24", "-nolisten", "tcp",
            "-fbdir", self.home, pass_fds=[write])
        os.close(write)
        with os.fdopen(read) as number:
            self.env["DISPLAY"] = ":" + number.readline().strip()
        self.env["QT_QPA_PLATFORM"] = "xcb"

    def start(self, *command, text=None, pass_fds=()):
        log = open(os.path.join(self.home, os.path.basename(command[0]) + ".log"), "ab")
        # Nothing outlives a program that was killed.
        tied = ("setpriv", "--pdeathsig", "KILL", *command)
        child = subprocess.Popen(tied, env=self.env, stdin=subprocess.PIPE, stdout=log,
                                 stderr=log, start_new_session=True, pass_fds=pass_fds)
        log.close()
        self.children.append(child)
        if text is not None:
            child.stdin.write(text.encode())
        child.stdin.close()
        return child

    def stop(self, child):
        if child.poll() is None:
            child.terminate()
            try:
                child.wait(5)
            except subprocess.TimeoutExpired:
                child.kill()
                child.wait()

    def run(self, *command, text=""):
        return subprocess.run(command, env=self.env, input=text, capture_output=True, text=True,
                              timeout=WAIT)

    def call(self, name, path, method, *arguments):
        """The reply's text; None when the call failed."""
        done = self.run("gdbus", "call", "--session", "--dest", name, "--object-path", path,
                        "--method", method, *arguments)
        return done.stdout.strip() if done.returncode == 0 else None

    def owner(self, name):
        reply = self.call("org.freedesktop.DBus", "/", "org.freedesktop.DBus.GetNameOwner", name)
        return reply.strip("(',)") if reply else None

    def started_by_bus(self):
        """Processes on this bus that are not children of this program."""
        mine = f"DBUS_SESSION_BUS_ADDRESS={self.env.get('DBUS_SESSION_BUS_ADDRESS')}".encode()
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                with open(f"/proc/{pid}/environ", "rb") as file:
                    if mine in file.read().split(b"\0"):
                        yield int(pid)
            except OSError:
                pass

    # Windows, as a person deals with them.

    def windows(self, title):
        """The windows whose title has this regular expression in it."""
        windows = self.run("xdotool", "search", "--onlyvisible", "--name", ".*").stdout.split()
        return [window for window in windows
                if re.search(title, self.run("xdotool", "getwindowname", window).stdout)]

    def window(self, title):
        return wait_for(lambda: self.windows(title), f"a window '{title}'")[-1]

    def press(self, title, *keys):
        """Types into a window: names of keys in <>, other texts as they are."""
        window = self.window(title)
        self.run("xdotool", "windowfocus", "--sync", window)
        for key in keys:
            if key.startswith("<"):
                self.run("xdotool", "key", key.strip("<>"))
            else:
                self.run("xdotool", "type", key)
        return window

    def click(self, title, x, y):
        self.run("xdotool", "mousemove", "--window", self.window(title), str(x), str(y), "click",
                 "1")

    def close(self):
        for child in reversed(self.children):
            self.stop(child)
        for pid in list(self.started_by_bus()):
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        shutil.rmtree(self.home, ignore_errors=True)


class Probe:
    """The app's secret store, in a process of its own."""

    def __init__(self, desktop, program, place="", prompt_seconds=120):
        command = [program, os.path.join(desktop.home, "secrets"), place, str(prompt_seconds)]
        self.child = subprocess.Popen(command, env=desktop.env, stdin=subprocess.PIPE,
                                      stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                                      bufsize=1)
        desktop.children.append(self.child)
        self.answers, self.events = queue.Queue(), []
        threading.Thread(target=self.collect, daemon=True).start()

    def collect(self):
        for line in self.child.stdout:
            kind, _, text = line.rstrip("\n").partition(" ")
            if kind == "event":
                self.events.append(text)
            elif kind == "answer":
                self.answers.put(text)

    def send(self, command):
        self.child.stdin.write(command + "\n")

    def wait_for_event(self, event):
        """Waits for an event of this kind since the last one was waited for."""
        def seen():
            if event not in self.events:
                return False
            del self.events[: self.events.index(event) + 1]
            return True
        wait_for(seen, f"the event '{event}'")

    def answer(self, seconds=WAIT):
        try:
            return self.answers.get(timeout=seconds)
        except queue.Empty:
            raise Failed(f"no answer within {seconds} s") from None

    def ask(self, command, seconds=WAIT):
        self.send(command)
        return self.answer(seconds)
