"""Tells which include lines run the wrong way through the layers."""

import os
import re
import subprocess
import sys

CORE = [f'VerdoDriverCore/{name}' for name in
        ('System', 'Values', 'Process', 'Contract', 'Network', 'Jobs', 'Run', 'Doctor')]
APP = [f'VerdoDriver/{name}' for name in ('Model', 'UI', 'MenuBar', 'App')]
PLATFORM = 'VerdoDriver/Platform'
PROOFS = ['pictures', 'interop', 'soak', 'failures', 'tests']
LAYERS = [*CORE, *APP, PLATFORM, 'VerdoDriverCLI', 'LocalService', 'FakeFrameworks', 'bench',
          'fuzz', *PROOFS]

# What a layer may include, itself first. Only the app's composition root and what
# tries the whole name what a platform offers.
ALLOWED = {layer: [layer, *CORE[:i]] for i, layer in enumerate(CORE)}
ALLOWED |= {layer: [layer, *APP[:i], *CORE] for i, layer in enumerate(APP)}
ALLOWED['VerdoDriver/App'] += [PLATFORM]
ALLOWED[PLATFORM] = [PLATFORM, 'VerdoDriver/Model', *CORE]
ALLOWED['VerdoDriverCLI'] = ['VerdoDriverCLI', *CORE]
ALLOWED['LocalService'] = ['LocalService', 'VerdoDriverCore/System']
ALLOWED['bench'] = ['bench', 'LocalService', *CORE]
ALLOWED['fuzz'] = ['fuzz', 'VerdoDriver/Model', *CORE]
ALLOWED['FakeFrameworks'] = ['FakeFrameworks']
ALLOWED |= {layer: LAYERS for layer in PROOFS}

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"')


def layer_of(path):
    return next((layer for layer in LAYERS if path.startswith(layer + '/')), None)


def complaints_about(path):
    layer = layer_of(path)
    if layer is None:
        yield f'{path}: lies in no layer that scripts/checks/includes.py knows'
        return
    with open(path, encoding='utf-8') as file:
        for number, line in enumerate(file, 1):
            match = INCLUDE.match(line)
            if not match:
                continue
            included = layer_of(match[1])
            if included is None:
                yield f'{path}:{number}: "{match[1]}" does not begin with a folder of this tree'
            elif included not in ALLOWED[layer]:
                yield f'{path}:{number}: {layer} must not include {included} ("{match[1]}")'


def main():
    listing = subprocess.run(
        ['git', 'ls-files', '-co', '--exclude-standard', '*.h', '*.cpp', '*.mm', '*.in'],
        check=True, capture_output=True, text=True)
    files = [path for path in listing.stdout.split('\n')
             if path.endswith(('.h', '.cpp', '.mm', '.h.in')) and os.path.exists(path)]
    complaints = [complaint for path in files for complaint in complaints_about(path)]
    for complaint in complaints:
        print(complaint)
    wrong = f'{len(complaints)} the wrong way' if complaints else 'no wrong way'
    print(f'== includes: {len(files)} files, {wrong}')
    return 1 if complaints else 0


if __name__ == '__main__':
    sys.exit(main())
