"""Logging in to sites for browser jobs: a person at the window of verdo-browser login, and scripts
afterwards."""

import glob
import http.server
import os
import re
import signal
import stat
import subprocess
import threading
import time
import unittest

from desktop import Desktop, wait_for

PROGRAM = os.path.join(os.environ["VERDO_PROGRAMS"], "verdo-browser")
# The program looks at the cookies twice a second: nobody closes a window faster than that.
LOOKS = 1.5  # seconds


class Site(http.server.BaseHTTPRequestHandler):
    """Knows who is logged in by a cookie of the session, one that stays, and local storage."""

    def do_POST(self):
        user = self.rfile.read(int(self.headers["Content-Length"])).decode().partition("=")[2]
        self.answer("", 303, ("Location", "/in"), ("Set-Cookie", f"session={user}; HttpOnly"),
                    ("Set-Cookie", f"stays={user}; Max-Age=100000"))

    def do_GET(self):
        if self.path == "/renew":
            self.answer("renewed", 200, ("Set-Cookie", "session=renewed; HttpOnly"))
        elif self.path == "/in":
            user = self.cookies().partition("stays=")[2]
            self.answer(f"""<script>localStorage.setItem("user", "{user}")</script>
                        <title>Hello {user}</title>""")
        elif self.path == "/who":
            self.answer(f"""<body><script>document.body.append(
                        localStorage.getItem("user"), "; {self.cookies()}")</script>""")
        else:
            self.answer("""<title>A form</title>
                        <form method=post><input name=user autofocus
                        onfocus="document.title = 'Log in'"></form>""")

    def cookies(self):
        return "; ".join(sorted(self.headers.get("Cookie", "none").split("; ")))

    def answer(self, body, status=200, *headers):
        self.send_response(status)
        self.send_header("Content-Type", "text/html")
        for name, value in headers:
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(body.encode())

    def log_message(self, *_):
        pass


class LoginTest(unittest.TestCase):
    def setUp(self):
        self.desktop = Desktop()
        self.addCleanup(self.desktop.close)
        self.addCleanup(lambda: self.desktop.run(PROGRAM, "stop"))
        self.desktop.start("openbox")
        self.kept = os.path.join(self.desktop.home, ".local/state/verdo-browser")
        site = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Site)
        self.addCleanup(site.server_close)
        self.addCleanup(site.shutdown)
        threading.Thread(target=site.serve_forever, daemon=True).start()
        self.site = f"http://127.0.0.1:{site.server_port}"

    def window(self, *name):
        login = subprocess.Popen([PROGRAM, "login", *name], env=self.desktop.env, text=True,
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(login.communicate)
        self.addCleanup(login.kill)
        self.assertIn("log in in the window", login.stderr.readline())
        self.desktop.window("Chromium")
        return login

    def log_in(self, user, *name):
        """Opens the window and logs in there; the window stays open."""
        login = self.window(*name)
        self.desktop.press("Chromium", "<ctrl+l>", self.site + "/", "<Return>")
        self.desktop.press("Log in", user, "<Return>")
        self.desktop.window(f"Hello {user}")
        time.sleep(LOOKS)
        return login

    def close(self, login):
        self.desktop.press("Hello", "<alt+F4>")
        output = login.communicate(timeout=20)
        self.assertEqual((login.returncode, output[0]), (0, "kept the logins of 1 site\n"), output)

    def script(self, space, page="/who"):
        done = self.desktop.run(PROGRAM, "nodejs", text=f"""
            const page = await openTaskSpace("{space}")
            await page.goto("{self.site}{page}")
            cliLog((await page.text()).trim(), (await page.pages()).length)""")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return done.stdout.strip()

    def command(self, *words):
        done = self.desktop.run(PROGRAM, *words)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def modes(self):
        # The keeper writes a renewed login anew, after the script that renewed it has ended.
        files = [file for file in glob.glob(f"{self.kept}/*") if not re.search(r"json\.\d+$", file)]
        return {os.path.relpath(path, self.kept): stat.S_IMODE(os.stat(path).st_mode)
                for path in [self.kept, *files]}

    def test_is_kept_for_scripts_until_it_is_forgotten(self):
        nobody, ann, bob = "null; none 1", *(f"{u}; session={u}; stays={u} 1" for u in ("ann", "bob"))
        self.assertEqual(self.script("before"), nobody)
        self.close(self.log_in("ann"))
        self.assertEqual([self.script("before"), self.script("new")], [nobody, ann])
        self.assertEqual(self.command("stop"), "stopped\n")
        self.assertEqual(self.script("new"), ann)
        self.assertEqual(self.modes(), {".": 0o700, "base.json": 0o600})

        self.script("bank")
        self.close(self.log_in("bob", "bank"))
        self.assertEqual([self.script("bank"), self.script("other")], [bob, ann])
        self.assertEqual(self.script("bank", "/renew"), "renewed 1")
        self.command("stop")
        self.assertEqual(self.script("bank"), "bob; session=renewed; stays=bob 1")
        self.assertEqual(sorted(self.modes().values()), [0o600, 0o600, 0o700])

        self.assertEqual(self.command("forget", "bank"), "forgotten\n")
        self.assertEqual(self.script("bank"), ann)
        self.assertEqual(self.command("forget"), "forgotten\n")
        self.assertEqual([self.script("newer"), self.script("bank")], [nobody, ann])
        self.assertEqual(self.command("forget"), "nothing was kept\n")
        self.assertEqual(self.modes(), {".": 0o700})
        for place in (".local/share/verdo", ".config/chromium"):  # nothing is left elsewhere
            self.assertFalse(os.path.exists(f"{self.desktop.home}/{place}"), place)

    def test_survives_every_end_of_the_window(self):
        env = {k: v for k, v in self.desktop.env.items() if k != "DISPLAY"}
        blind = subprocess.run([PROGRAM, "login"], env=env, capture_output=True, text=True)
        self.assertEqual((blind.returncode, blind.stdout), (1, ""))
        self.assertRegex(blind.stderr, "there is no display: run it in a desktop session")

        login = self.log_in("ann")
        login.send_signal(signal.SIGINT)
        self.assertEqual(login.communicate(timeout=20)[0], "kept the logins of 1 site\n")
        self.assertEqual(self.modes(), {".": 0o700, "base.json": 0o600})

        login = self.log_in("bob")
        login.kill()
        login.communicate()
        wait_for(lambda: not self.desktop.windows("Hello"), "the browser to end")
        left = glob.glob(f"{self.kept}/window-*")
        self.assertEqual([self.modes()[os.path.basename(path)] for path in left], [0o700])
        self.assertEqual(self.script("new"), "ann; session=ann; stays=ann 1")

        login = self.window()
        self.assertEqual(len(set(glob.glob(f"{self.kept}/window-*")) - set(left)), 1)
        self.assertFalse(os.path.exists(left[0]))
        self.desktop.press("Chromium", "<alt+F4>")  # nothing was done: all is kept
        self.assertEqual(login.communicate(timeout=20)[0], "kept the logins of 1 site\n")
        self.assertEqual(self.script("newer"), "ann; session=ann; stays=ann 1")
        self.assertEqual(self.modes(), {".": 0o700, "base.json": 0o600})


if __name__ == "__main__":
    unittest.main()
