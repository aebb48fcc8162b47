"""The secret store against the real password managers. One line for each check.
Usage: checks.py PROBE [gnome-keyring|keepassxc|kwallet]..."""

import signal
import sys

from desktop import Desktop, Failed, Probe, wait_for
from keyring import SECRETS, GnomeKeyring
from programs import KeePassXC, KWallet

TOKEN = "driver-token"
failures = 0


class Checks:
    def __init__(self, program, desktop, probe):
        self.program, self.desktop, self.probe_path = program, desktop, probe

    def probe(self, place="", prompt_seconds=120):
        return Probe(self.desktop, self.probe_path, place, prompt_seconds)

    def that(self, what, is_so, seen=""):
        global failures
        failures += not is_so
        print(f"{'ok  ' if is_so else 'FAIL'} {self.program}: {what}"
              + ("" if is_so else f" — {seen}"), flush=True)

    def answers(self, what, answer, wanted):
        self.that(what, answer.startswith(wanted), f"'{answer}' instead of '{wanted}'")

    def replaces_and_removes(self, probe):
        self.answers("nothing is stored at first", probe.ask(f"read {TOKEN}"), "absent")
        for value in ("one", "two"):
            self.answers(f"a secret is stored ({value})", probe.ask(f"write {TOKEN} {value}"),
                         "done")
            self.answers("and read back", probe.ask(f"read {TOKEN}"), f"found {value}")
        self.answers("the other one is absent", probe.ask("read llm-key"), "absent")
        self.answers("it is forgotten", probe.ask(f"remove {TOKEN}"), "done")
        self.answers("and absent again", probe.ask(f"read {TOKEN}"), "absent")
        self.answers("a last one is stored", probe.ask(f"write {TOKEN} kept"), "done")


def gnome_keyring(check):
    desktop = check.desktop
    nobody = check.probe("secretService:keepassxc")
    check.answers("another program kept the secrets, and does not run",
                  nobody.ask(f"state {TOKEN}"), "unavailable")
    check.answers("nothing was ever stored", check.probe().ask(f"state {TOKEN}"), "absent")
    check.that("it is not started for that", desktop.owner(SECRETS) is None)
    check.answers("it has kept them, and does not run",
                  check.probe("secretService:gnome-keyring-daemon").ask(f"state {TOKEN}"),
                  "unavailable")
    check.that("it is started for that", desktop.owner(SECRETS) is not None)
    desktop.close()

    desktop = check.desktop = Desktop()
    keyring = GnomeKeyring(desktop)
    keyring.start()
    probe = check.probe()
    check.replaces_and_removes(probe)
    check.answers("it is remembered", probe.ask("place"), "secretService:gnome-keyring-daemon")
    check.answers("another start finds it", check.probe().ask(f"read {TOKEN}"), "found kept")
    other = check.probe("secretService:keepassxc")
    check.answers("what another program kept is not absent", other.ask("state llm-key"),
                  "unavailable")
    probe.events.clear()
    keyring.lock()
    probe.wait_for_event("changed")
    check.that("a lock is told", True)
    check.answers("locked is not absent", probe.ask(f"state {TOKEN}"), "locked")
    for attempt in range(2):
        probe.send("unlock")
        probe.wait_for_event("promptOpened")
        if attempt == 0:
            probe.send("cancel")
            check.answers("a cancelled unlock", probe.answer(), "locked")
    check.that("windows do not pile up", len(desktop.windows(keyring.WINDOW)) == 1)
    desktop.press(keyring.WINDOW, "pw", "<Return>")
    check.answers("the window is answered at last", probe.answer(), "done")
    check.answers("and the secret is there", probe.ask(f"read {TOKEN}"), "found kept")
    check.that("the keyring has survived it", keyring.child.poll() is None)


def keepassxc(check):
    desktop = check.desktop
    manager = KeePassXC(desktop)
    manager.start()
    first = check.probe()
    check.replaces_and_removes(first)
    check.answers("it is remembered", first.ask("place"), "secretService:keepassxc")
    check.that("all that without a window", "promptOpened" not in first.events, first.events)

    second = check.probe("secretService:keepassxc", prompt_seconds=2)
    check.answers("another start must be allowed first", second.ask(f"state {TOKEN}"), "locked")
    check.that("a read asks nobody", not desktop.windows(manager.ACCESS))
    for attempt in ("unlock", f"write {TOKEN} unseen"):
        check.answers(f"'{attempt.split()[0]}' that nobody answers ends in time",
                      second.ask(attempt), "locked")
        check.that("windows do not pile up", len(desktop.windows(manager.ACCESS)) == 1)
    check.answers("what nobody allowed was not stored", first.ask(f"read {TOKEN}"), "found kept")
    second.send("unlock")
    second.wait_for_event("promptOpened")
    desktop.press(manager.ACCESS, "<Return>")
    check.answers("the window is answered at last", second.answer(), "done")
    check.answers("and the secret is there", second.ask(f"read {TOKEN}"), "found kept")
    check.answers("a replace is allowed, too", second.ask(f"write {TOKEN} new"), "done")

    third = check.probe("secretService:keepassxc")
    third.send(f"write {TOKEN} refused")
    desktop.press(manager.ACCESS, "<Escape>")
    check.answers("a refused replace is no success", third.answer(), "locked")
    check.answers("and the old secret is still there", first.ask(f"read {TOKEN}"), "found new")
    third.send(f"write {TOKEN} cancelled")
    third.wait_for_event("promptOpened")
    third.send("cancel")
    check.answers("a cancelled replace is no success", third.answer(), "locked")
    desktop.press(manager.ACCESS, "<Return>")
    wait_for(lambda: third.ask(f"state {TOKEN}") == "found", "the late answer")
    check.answers("allowed too late, it replaces nothing", third.ask(f"read {TOKEN}"), "found new")

    first.events.clear()
    manager.lock()
    first.wait_for_event("changed")
    check.answers("a locked database is not absent", first.ask(f"state {TOKEN}"), "locked")
    check.that("a read opens no window to unlock it", not desktop.windows(manager.UNLOCK))
    first.send("unlock")
    desktop.press(manager.UNLOCK, "pw", "<Return>")
    check.answers("the database is unlocked", first.answer(), "done")
    check.answers("and the secret is there", first.ask(f"read {TOKEN}"), "found new")
    manager.close_database()
    check.answers("a closed database is not absent", first.ask(f"state {TOKEN}"), "unavailable")
    check.answers("nor stored beside", first.ask(f"write {TOKEN} beside"), "unavailable")
    first.events.clear()
    manager.stop()
    first.wait_for_event("changed")
    check.answers("ended, it is not absent", first.ask(f"state {TOKEN}"), "unavailable")
    check.that("nothing else is started in its place", desktop.owner(SECRETS) is None)
    manager.start()
    check.answers("after a restart it must be allowed again", first.ask(f"state {TOKEN}"), "locked")
    first.send("unlock")
    desktop.press(manager.ACCESS, "<Return>")
    check.answers("which goes on without a new start of ours", first.answer(), "done")
    check.answers("and the secret is there", first.ask(f"read {TOKEN}"), "found new")


def kwallet(check):
    desktop = check.desktop
    manager = KWallet(desktop)
    check.answers("nobody has a wallet", check.probe().ask(f"state {TOKEN}"), "absent")
    check.that("it is not started for that", desktop.owner(SECRETS) is None)
    manager.make_wallet()
    manager.stop()
    probe = check.probe()
    check.answers("the user has a closed wallet", probe.ask(f"read {TOKEN}"), "locked")
    check.that("it is started for that", desktop.owner(SECRETS) is not None)
    check.that("a read opens no window", not desktop.windows(manager.WINDOW))
    manager.unlock_by_hand()
    check.replaces_and_removes(probe)
    check.answers("it is remembered", probe.ask("place"), "secretService:kwalletd5")
    check.that("all that without a window", "promptOpened" not in probe.events, probe.events)
    another = check.probe("secretService:kwalletd5", prompt_seconds=2)
    check.answers("another start finds it", another.ask(f"read {TOKEN}"), "found kept")
    probe.events.clear()
    manager.close()
    probe.wait_for_event("changed")
    check.answers("a closed wallet is not absent", probe.ask(f"state {TOKEN}"), "locked")
    for _ in range(2):
        check.answers("an unlock that nobody answers ends in time", another.ask("unlock"), "locked")
        check.that("windows do not pile up", len(desktop.windows(manager.WINDOW)) == 1)
    another.send("unlock")
    another.wait_for_event("promptOpened")
    desktop.press(manager.WINDOW, "pw", "<Return>")
    check.answers("the window is answered at last", another.answer(), "done")
    check.answers("and the secret is there", another.ask(f"read {TOKEN}"), "found kept")
    manager.stop()
    check.answers("ended, it is started again", probe.ask(f"read {TOKEN}"), "locked")


PROGRAMS = {"gnome-keyring": gnome_keyring, "keepassxc": keepassxc, "kwallet": kwallet}


def main(probe, *names):
    global failures
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # what was started is ended
    for name in names or PROGRAMS:
        check = Checks(name, Desktop(), probe)
        try:
            PROGRAMS[name](check)
        except Failed as why:
            check.that("the check came to its end", False, str(why))
        finally:
            check.desktop.close()
    print(f"== {'all is well' if not failures else f'{failures} failed'}")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
