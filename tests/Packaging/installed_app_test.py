"""The app as a desktop finds it: what is installed for the component app belongs together."""

import configparser
import glob
import os
import re
import struct
import subprocess
import tempfile
import unittest

ROOT = os.path.join(os.path.dirname(__file__), "../..")


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


class InstalledAppTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        subprocess.run(["cmake", "--install", os.environ["VERDO_BUILD"], "--component", "app",
                        "--prefix", folder.name], check=True, capture_output=True, timeout=60)
        self.share = f"{folder.name}/share"
        (path,) = glob.glob(f"{self.share}/applications/*.desktop")
        self.id = os.path.basename(path).removesuffix(".desktop")
        parser = configparser.ConfigParser(interpolation=None)
        parser.read(path)
        self.entry = parser["Desktop Entry"]

    def test_goes_by_one_name(self):
        plist = read(f"{ROOT}/packaging/macos/Info.plist.in")
        self.assertIn(f"<key>CFBundleIdentifier</key>\n  <string>{self.id}</string>", plist)
        self.assertIn(f'value_or("{self.id}")', read(f"{ROOT}/VerdoDriver/App/AppInfo.cpp"))
        self.assertEqual(self.entry["Icon"], self.id)
        facts = read(f"{self.share}/metainfo/{self.id}.metainfo.xml")
        self.assertIn(f"<id>{self.id}</id>", facts)
        self.assertIn(f'<release version="{os.environ["VERDO_VERSION"]}"', facts)

    def test_has_its_icon_in_every_size(self):
        icons = f"{self.share}/icons/hicolor"
        for size in (48, 128, 256):
            with open(f"{icons}/{size}x{size}/apps/{self.id}.png", "rb") as file:
                picture = file.read()
            self.assertEqual(struct.unpack(">II", picture[16:24]), (size, size))
            self.assertGreater(len(picture), 6 * size, "an empty picture")
        self.assertIn("<svg", read(f"{icons}/scalable/apps/{self.id}.svg"))
        self.assertEqual(len(glob.glob(f"{icons}/*/apps/*")), 4)

    def test_starts_the_app(self):
        program = re.match(r"[\w-]+", self.entry["Exec"])[0]
        told = subprocess.run([f"{os.environ['VERDO_BUILD']}/bin/{program}", "--version"],
                              check=True, capture_output=True, text=True, timeout=20)
        self.assertEqual(told.stdout.strip(), os.environ["VERDO_VERSION"])


if __name__ == "__main__":
    unittest.main()
