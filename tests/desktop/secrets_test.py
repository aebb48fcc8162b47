"""What is left of the secrets in the app's memory once a person has had them forgotten."""

import os
import re
import unittest

from app import KEY, App
from desktop import wait_for
from keyring import GnomeKeyring


def memory_of(pid):
    """Name and content of everything that a process can write to."""
    with open(f"/proc/{pid}/maps", encoding="utf-8") as maps, \
            open(f"/proc/{pid}/mem", "rb", 0) as memory:
        for line in maps:
            begin, end, rights, name = re.match(
                r"(\w+)-(\w+) (\S+) \S+ \S+ \S+ *(.*)", line).groups()
            if "rw" not in rights or name.startswith("/dev/"):
                continue
            memory.seek(int(begin, 16))
            content = b""
            while len(content) < int(end, 16) - int(begin, 16):
                content += memory.read(int(end, 16) - int(begin, 16) - len(content))
            yield name, content


def places_of(secrets, pid):
    """Where the secrets are, in either encoding of a text: the mapping, and what is around."""
    places = []
    for name, content in memory_of(pid):
        for secret in (text.encode(code) for text in secrets for code in ("utf-8", "utf-16-le")):
            for found in re.finditer(re.escape(secret), content):
                around = content[max(0, found.start() - 40):found.end() + 16]
                places.append((name, secret[:4], around))
    return places


class SecretsTest(unittest.TestCase):
    def forget_both(self, app, place):
        """Serves, and then forgets as a person does. Gives what is left in memory."""
        secrets = (app.service.token, KEY)
        app.start("--show")
        app.wait(connection="notSetUp")
        app.set_up()
        code = app.find("Code .*").name
        app.service.ask(f"pairings/{code.split()[1]}/approve", method="POST")
        app.wait(connection="online")
        self.assertEqual(app.status()["secretStore"]["kind"], place)
        app.service.ask("jobs", {"label": "ada:mail", "payload": "echo one"})
        app.service.ask("jobs", {"label": "llm", "kind": "llm",
                                 "payload": '{"v": 1, "model": "m", "prompt": "p"}'})
        wait_for(lambda: all(app.service.ask(f"jobs/{number}")["state"] == "done"
                             for number in (1, 2)), "both jobs")
        self.assertTrue(places_of(secrets, app.child.pid))  # it can be found at all
        app.click("Setup")
        app.click("Remove the DeepSeek key")
        app.wait(hasKey=False)
        app.click("Forget token")
        app.click("Forget")
        app.wait(connection="notSetUp")
        return self.left(secrets, app)

    def left(self, secrets, app):
        try:
            wait_for(lambda: not places_of(secrets, app.child.pid), "clean memory", 10)
        except Exception:
            return places_of(secrets, app.child.pid)
        return []

    def remove_everything(self, app):
        app.configure()
        app.start("--show")
        app.wait(connection="online")
        app.click("Options")
        app.click("Remove everything…")
        app.click("Remove")
        app.wait(connection="notSetUp")
        return self.left((app.service.token, KEY), app)

    def test_stay_in_memory(self):
        for place in ("files", "secretService"):
            with self.subTest(place=place):
                app = App(os.environ["VERDO_PROGRAMS"])
                self.addCleanup(app.close)
                if place == "secretService":
                    GnomeKeyring(app.desktop).start()
                self.assertEqual(self.forget_both(app, place), [])
        with self.subTest("remove everything"):
            app = App(os.environ["VERDO_PROGRAMS"])
            self.addCleanup(app.close)
            self.assertEqual(self.remove_everything(app), [])
