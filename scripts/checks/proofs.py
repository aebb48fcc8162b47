"""Tells which tests that a page of the documentation names do not exist."""

import re
import subprocess
import sys

PAGE = 'docs/security.md'


def known():
    """Names of the tests as ctest has them, and of scripts."""
    listing = subprocess.run(['git', 'ls-files', '-co', '--exclude-standard', 'tests', 'fuzz', 'scripts'],
                             check=True, capture_output=True, text=True)
    names = set()
    for path in listing.stdout.split():
        if path.startswith('scripts/'):
            names.add(path)
        elif path.endswith('.cpp'):
            with open(path, encoding='utf-8') as file:
                names |= {'.'.join(test) for test in
                          re.findall(r'^TEST(?:_F)?\((\w+),\s+(\w+)\)', file.read(), re.MULTILINE)}
        elif path.endswith('CMakeLists.txt'):
            with open(path, encoding='utf-8') as file:
                text = file.read()
            names |= set(re.findall(r'add_test\(NAME ([\w.]+)', text))
            names |= {f'desktop.{test}' for test in re.findall(r'\w+_test\.\w+\.test_\w+', text)}
        elif path.endswith('.test.mjs'):
            names.add('browser.' + path.rsplit('/', 1)[-1].removesuffix('.test.mjs'))
    return names


def main():
    with open(PAGE, encoding='utf-8') as page:
        rows = [line.rsplit('|', 2)[-2] for line in page if re.match(r'\|.*`', line)]
    named = [name for row in rows for name in re.findall(r'`([^`]+)`', row)]
    missing = sorted(set(named) - known())
    for name in missing:
        print(f'{PAGE}: there is no test {name}')
    print(f'== proofs: {len(set(named))} tests named, {len(missing)} missing')
    return 1 if missing or not named else 0


if __name__ == '__main__':
    sys.exit(main())
