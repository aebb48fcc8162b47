"""Opens the tray app against the local service, on the user's display.

Usage: tray.py PROGRAM_DIRECTORY"""

import os
import shlex
import signal
import sys

from app import KEY, serve, write_script
from desktop import Desktop

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


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    signal.signal(signal.SIGINT, lambda *_: sys.exit(1))
    show(sys.argv[1])
