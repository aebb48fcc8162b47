"""The user unit as an installation puts it, and what it does before the driver's first start."""

import os
import stat
import subprocess
import tempfile
import unittest


class UnitTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.home, self.prefix = f"{folder.name}/home", f"{folder.name}/a %t prefix"
        os.mkdir(self.home)
        subprocess.run(["cmake", "--install", os.environ["VERDO_BUILD"], "--component", "driver",
                        "--prefix", self.prefix], check=True, capture_output=True, timeout=60)

    def prepare(self):
        subprocess.run([f"{self.prefix}/libexec/verdo-driver/make-env-file"], check=True,
                       capture_output=True, env={"HOME": self.home}, timeout=20)
        return f"{self.home}/.config/verdo/driver.env"

    def test_systemd_finds_nothing_to_say(self):
        found = subprocess.run(
            ["systemd-analyze", "--user", "verify", "--man=no",
             f"{self.prefix}/share/systemd/user/verdo-driver.service"], stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True, timeout=20, check=False,
            env={**os.environ, "HOME": self.home, "XDG_RUNTIME_DIR": self.home})
        self.assertEqual((found.stdout, found.returncode), ("", 0))

    def test_first_start_makes_a_private_env_file_and_later_ones_leave_it_alone(self):
        os.umask(0)
        path = self.prepare()
        self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o600)
        self.assertEqual(os.listdir(os.path.dirname(path)), ["driver.env"])
        with open(path, "a", encoding="utf-8") as file:
            file.write("VERDO_DRIVER_TOKEN=mine\n")
        self.prepare()
        with open(path, encoding="utf-8") as file:
            self.assertTrue(file.read().endswith("VERDO_DRIVER_TOKEN=mine\n"))


if __name__ == "__main__":
    unittest.main()
