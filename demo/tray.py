"""Shows the tray app at work against the local service: on the user's display, or, where there is
none, on a virtual one of which it leaves pictures.

Usage: tray.py PROGRAM_DIRECTORY PICTURE_DIRECTORY"""

import os
import shlex
import signal
import sys

from app import KEY, UNTIL_TOLD, App, approve, serve, write_script
from desktop import Desktop
from keyring import GnomeKeyring
from screen import picture, save

JOB = "echo at work; sleep 15"


class UsersDesktop(Desktop):
    """The display and the bus that are there, with files apart: an app that the user has set up,
    and the user's keyring, stay as they are."""

    def __init__(self):
        self.make_home()
        runtime = os.environ.get("XDG_RUNTIME_DIR", "")
        found = {"XAUTHORITY": os.path.expanduser("~/.Xauthority")}
        if os.path.exists(f"{runtime}/bus"):
            found["DBUS_SESSION_BUS_ADDRESS"] = f"unix:path={runtime}/bus"
        self.env = {**found, **os.environ, **self.places()}
        # The browser is the user's own.
        back = [f"export {name}={shlex.quote(os.environ[name])}" if name in os.environ
                else f"unset {name}" for name in ("PATH", *self.places())]
        write_script(self, "bin/xdg-open", "\n".join(("#!/bin/sh", *back, 'exec xdg-open "$@"\n')))
        if "WAYLAND_DISPLAY" in self.env:
            self.env["WAYLAND_DISPLAY"] = os.path.join(runtime, self.env["WAYLAND_DISPLAY"])
        write_script(self, ".config/verdo-driver/settings.ini", "[General]\nsecretPlace=files\n")

    def started_by_bus(self):
        return []  # the bus is not ours


def show(programs):
    desktop = UsersDesktop()
    try:
        service = serve(desktop, programs)
        app = desktop.start(f"{programs}/verdo-driver-app")
        print(f"Type the server {service.url} and the key {KEY}, connect, and approve it in your "
              "browser.\nThen jobs run until you quit the app.", flush=True)
        while app.poll() is None:
            lane = "demo:mail" if len(service.ask("jobs")["jobs"]) % 2 else "demo:crm"
            job = service.ask("jobs", {"label": lane, "payload": JOB})["id"]
            while app.poll() is None:
                if service.ask(f"jobs/{job}/wait?for=done&timeout=1")["reached"]:
                    break
    finally:
        desktop.close()


def draw(programs, directory):
    app = App(programs)
    os.makedirs(directory, exist_ok=True)
    drawn = []

    def draw(what):
        drawn.append(what)
        save(picture(app.desktop), f"{directory}/{len(drawn)}-{what}.png")
    try:
        keyring = GnomeKeyring(app.desktop)
        keyring.start()
        app.panel.start()
        app.start()
        app.find("Not set up")
        draw("not-set-up")
        app.set_up()
        app.find("Code .*")
        draw("pairing")
        approve(app.status()["pairing"]["verifyURL"])
        app.find("Online")
        draw("online")
        for lane in ("demo:mail", "demo:crm"):
            app.service.ask("jobs", {"label": lane, "payload": UNTIL_TOLD})
        for lane in ("mail", "crm", "00:02"):
            app.find(lane)
        draw("busy")
        app.click("Quit")
        app.find("2 jobs are running.*")
        draw("quit")
        app.click("Cancel")
        write_script(app.desktop, "go", "")
        app.wait(connection="online")
        app.service.kill()
        app.click("Restart")
        app.find("Server unreachable")
        draw("offline")
        app.service.start()
        app.service.ask("token", {"token": None})
        app.click("Try now")
        app.find("Disconnected")
        draw("disconnected")
        keyring.lock()
        app.desktop.run(app.program, "--quit")
        app.child.wait(20)
        app.start("--show")
        app.find("Waiting for the keyring")
        draw("keyring-locked")
    finally:
        app.close()
    print(f"== {len(drawn)} pictures in {directory}")


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    signal.signal(signal.SIGINT, lambda *_: sys.exit(1))
    if os.environ.get("DISPLAY") or os.environ.get("WAYLAND_DISPLAY"):
        show(sys.argv[1])
    else:
        draw(*sys.argv[1:])
