"""The bundle's facts, and the scripts around it with stand-ins of Apple's tools on the PATH."""

import os
import plistlib
import subprocess
import tempfile
import unittest

SCRIPTS = os.path.join(os.path.dirname(__file__), '../../packaging/macos')
TOOL = '''#!/bin/sh
echo "$(basename "$0") $*" >>"$CALLS"
case "$*" in *"$REFUSED"*) exit 1 ;; esac
'''


class BundleTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.app = os.path.join(self.folder, 'Verdo Driver.app')
        for part in ('Frameworks/QtCore.framework/Versions/A', 'PlugIns/platforms', 'MacOS'):
            os.makedirs(os.path.join(self.app, 'Contents', part))
        for part in ('Frameworks/libfmt.9.dylib', 'PlugIns/platforms/libqcocoa.dylib',
                     'Frameworks/QtCore.framework/Versions/A/libinner.dylib', 'MacOS/Verdo Driver'):
            open(os.path.join(self.app, 'Contents', part), 'w').close()
        for tool in ('codesign', 'xcrun', 'ditto', 'spctl'):
            path = os.path.join(self.folder, tool)
            with open(path, 'w', encoding='utf-8') as file:
                file.write(TOOL)
            os.chmod(path, 0o700)

    def run_script(self, name, *arguments, refused='nothing at all'):
        calls = os.path.join(self.folder, 'calls')
        ended = subprocess.run(
            [os.path.join(SCRIPTS, name), *arguments], check=False, capture_output=True,
            env={'PATH': f'{self.folder}:{os.environ["PATH"]}', 'CALLS': calls, 'REFUSED': refused})
        with open(calls, encoding='utf-8') as file:
            return ended.returncode, file.read().replace(self.folder + '/', '').splitlines()

    def test_says_what_the_app_is(self):
        with open(os.environ['VERDO_INFO_PLIST'], 'rb') as file:
            facts = plistlib.load(file)
        self.assertIs(facts['LSUIElement'], True)
        self.assertEqual(facts['CFBundleIdentifier'], 'com.pellmar.verdodriver')
        self.assertEqual(facts['CFBundleShortVersionString'], os.environ['VERDO_VERSION'])
        self.assertEqual(facts['VERDODefaultServerURL'], 'https://verdo.example/?a=<b>&c')

    def test_signs_what_lies_inside_first(self):
        status, calls = self.run_script('sign', 'Developer ID: A (B)', self.app)
        self.assertEqual(status, 0)
        signing = 'codesign --force --options runtime --timestamp --sign Developer ID: A (B) '
        signed = [call.removeprefix(signing) for call in calls[:-1]]
        app = 'Verdo Driver.app'
        framework = f'{app}/Contents/Frameworks/QtCore.framework'
        self.assertEqual(signed[-1], app)
        self.assertLess(signed.index(f'{framework}/Versions/A/libinner.dylib'),
                        signed.index(framework))
        self.assertEqual(set(signed[:-1]), {
            framework, f'{framework}/Versions/A/libinner.dylib',
            f'{app}/Contents/Frameworks/libfmt.9.dylib',
            f'{app}/Contents/PlugIns/platforms/libqcocoa.dylib'})
        verifying = f'codesign --verify --deep --strict {app}'
        self.assertEqual(calls[-1], verifying)
        os.unlink(os.path.join(self.folder, 'calls'))
        status, calls = self.run_script('sign', 'A', self.app, refused='libfmt.9.dylib')
        self.assertNotEqual(status, 0)
        self.assertNotIn(verifying, calls)

    def test_notarises_and_staples(self):
        status, calls = self.run_script('notarise', 'the-profile', self.app)
        self.assertEqual(status, 0)
        self.assertEqual([call.split(' ')[0:2] for call in calls],
                         [['ditto', '-c'], ['xcrun', 'notarytool'], ['xcrun', 'stapler'],
                          ['spctl', '--assess']])
        self.assertIn('--keychain-profile the-profile --wait', calls[1])
        status, calls = self.run_script('notarise', 'p', self.app, refused='stapler')
        self.assertNotEqual(status, 0)


if __name__ == '__main__':
    unittest.main()
