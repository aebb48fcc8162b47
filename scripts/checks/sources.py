"""Runs clang's warnings, its thread-safety analysis and clang-tidy over the sources.

Most of the time goes into the headers that sources share. So only sources of the product are
compiled one by one, for what a single file alone can tell: clang's warnings, and includes and
declarations that nothing uses. Tests and benchmarks are looked at a few at a time, which misses an
include that a neighbour needs. All other checks look at the product's sources of one folder together.

What was found clean is remembered by content: the sources, every header that they read, the
command, the configuration and the version of clang-tidy. Only what differs is looked at again.

Usage: sources.py BUILD_DIR [FILE...]
"""

import concurrent.futures
import hashlib
import json
import os
import re
import shlex
import subprocess
import sys
import threading
import time

TIDY = 'clang-tidy-19'
ROOT = os.getcwd()
CACHE = os.path.join(os.environ.get('XDG_CACHE_HOME') or os.path.expanduser('~/.cache'),
                     'verdo-lint')
MAX_AGE = 30 * 24 * 3600  # seconds after which an unused record is forgotten
MAX_ENTRIES = 6           # states of one piece of work that are remembered
GROUP_SIZE = 16
TEST_GROUP_SIZE = 4

# In tests and benchmarks the other checks judge the frameworks' macros instead of our code.
TESTS = ('tests/', 'bench/', 'pictures/', 'interop/', 'soak/', 'failures/', 'FakeFrameworks/')
ALONE = '-*,clang-diagnostic-*,misc-include-cleaner,misc-unused-*,-misc-unused-using-decls'
TOGETHER = '-clang-diagnostic-*,-misc-include-cleaner,-misc-unused-*,-bugprone-suspicious-include'
# The analyzer's limit for one function. By default it is three times this, and the analyzer then
# takes more than twice as long.
ANALYZER = ['-Xclang', '-analyzer-config', '-Xclang', 'max-nodes=75000']

DIAGNOSTIC = re.compile(r'^(?=/[^\n:]+:\d+:\d+: (?:warning|error):)', re.MULTILINE)
# This project's sources rely on what their own header includes; only includes too many are found.
NOT_OURS = re.compile(r'no header providing .* is directly included \[misc-include-cleaner')
HEADER = re.compile(r'^\.+ (.+)$', re.MULTILINE)
BROKEN = '[clang-diagnostic-error'


class Contents:
    """Digests of files; each file is read once."""

    def __init__(self):
        self._digests = {}

    def digest_of(self, paths):
        total = hashlib.sha256()
        for path in paths:
            if path not in self._digests:
                try:
                    with open(path, 'rb') as file:
                        self._digests[path] = hashlib.sha256(file.read()).digest()
                except OSError:
                    self._digests[path] = b'absent'
            total.update(path.replace(ROOT, '@').encode() + b'\0' + self._digests[path])
        return total.hexdigest()


class Work:
    """Sources that are looked at in one go, and what was found when they were before."""

    def __init__(self, sources, arguments, checks, contents):
        self.sources = sources
        self._checks = checks
        self._arguments = arguments
        self._contents = contents
        identity = json.dumps([IDENTITY, sources, arguments, checks]).replace(ROOT, '@')
        self._record = os.path.join(CACHE, hashlib.sha256(identity.encode()).hexdigest())

    def is_clean_already(self):
        for headers, digest in self._entries():
            paths = [path.replace('@', ROOT, 1) for path in headers]
            if self._contents.digest_of(self.sources + paths) == digest:
                os.utime(self._record)
                return True
        return False

    def _entries(self):
        try:
            with open(self._record, encoding='utf-8') as file:
                return json.load(file)
        except (OSError, ValueError):
            return []  # never looked at, or the record was cut short: it is written anew

    def _remember(self, headers):
        entry = [[path.replace(ROOT, '@', 1) for path in headers],
                 self._contents.digest_of(self.sources + headers)]
        temporary = f'{self._record}.{os.getpid()}'
        with open(temporary, 'w', encoding='utf-8') as file:
            json.dump([entry, *self._entries()][:MAX_ENTRIES], file)
        os.replace(temporary, self._record)

    def look(self, directory):
        """The findings, as text; empty when there are none."""
        name = hashlib.sha256(self._record.encode()).hexdigest()[:16] + '.cpp'
        unit = self.sources[0]  # alone: only then its own header is known for that
        is_joined = self._checks == TOGETHER or len(self.sources) > 1
        if is_joined:
            unit = os.path.join(ROOT, directory, name)
            begins = join_sources(self.sources, unit)
        # -H tells the headers; what the compiler warns of is told by the sources alone.
        extra = ['-H', *(['-w', *ANALYZER] if self._checks == TOGETHER else [])]
        run = subprocess.run(
            [TIDY, '--quiet', '--warnings-as-errors=*', f'--checks={self._checks}',
             *[f'--extra-arg={argument}' for argument in extra], unit, '--', *self._arguments],
            check=False, capture_output=True, text=True, errors='replace')
        findings = [text for text in DIAGNOSTIC.split(run.stdout)
                    if text.strip() and not NOT_OURS.search(text)]
        if is_joined:
            findings = [in_source(text, unit, begins) for text in findings]
        if run.returncode not in (0, 1) and not findings:
            findings = [f'{TIDY} failed on {" ".join(self.sources)}:\n{run.stderr}']
        if not findings:
            headers = sorted({os.path.realpath(path) for path in HEADER.findall(run.stderr)})
            self._remember([path for path in headers if path != os.path.realpath(unit)])
        return ''.join(findings)

    def halves(self):
        """The same sources as smaller pieces of work; none when they cannot be parted."""
        middle = len(self.sources) // 2
        return [Work(part, self._arguments, self._checks, self._contents)
                for part in (self.sources[:middle], self.sources[middle:])] if middle else []


def join_sources(sources, unit):
    """Writes the sources into one file, and gives each with the number of lines before it.

    Joined they are all what the analyzer takes for the main file; it leaves out what is included.
    """
    begins = []
    lines = 0
    with open(unit, 'w', encoding='utf-8') as joined:
        for path in sources:
            with open(path, encoding='utf-8') as file:
                text = file.read()
            text += '' if text.endswith('\n') else '\n'
            joined.write(text)
            begins.append((lines, path))
            lines += text.count('\n')
    return begins


def in_source(finding, unit, begins):
    """The finding with places in the joined file replaced by those in its sources."""
    def place(match):
        line = int(match[1])
        before, path = max(entry for entry in begins if entry[0] < line)
        return f'{path}:{line - before}:'
    finding = re.sub(re.escape(unit) + r':(\d+):', place, finding)
    return re.sub(r'^ *\d+ \|', '      |', finding, flags=re.MULTILINE)


def identity():
    version = subprocess.run([TIDY, '--version'], check=True, capture_output=True, text=True)
    with open('.clang-tidy', encoding='utf-8') as file:
        return [version.stdout, file.read(), ALONE, TOGETHER, ANALYZER]


def sources_of(build):
    """The tree's sources and the arguments that each is compiled with."""
    with open(os.path.join(build, 'compile_commands.json'), encoding='utf-8') as file:
        commands = json.load(file)
    for command in commands:
        path = os.path.relpath(command['file'], ROOT)
        if path.startswith(('build/', '..')):
            continue  # generated
        arguments = shlex.split(command['command'])
        first = next(i for i, word in enumerate(arguments) if 'clang++' in word) + 1
        arguments = arguments[first:arguments.index('-o')]
        yield path, arguments


def pieces_of_work(build, wanted):
    contents = Contents()
    groups = {}
    for path, arguments in sorted(sources_of(build)):
        if wanted and path not in wanted:
            continue
        place = (os.path.dirname(path), tuple(arguments))
        if path.startswith(TESTS):
            groups.setdefault((ALONE, TEST_GROUP_SIZE, place), []).append(path)
        else:
            yield Work([path], arguments, ALONE, contents)
            groups.setdefault((TOGETHER, GROUP_SIZE, place), []).append(path)
    for (checks, size, (_, arguments)), sources in groups.items():
        count = -(-len(sources) // size)
        for i in range(count):
            yield Work(sources[i::count], list(arguments), checks, contents)


def look_at(work, directory):
    """Findings of a piece of work. Sources that do not compile as one are looked at in halves."""
    found = work.look(directory)
    if BROKEN in found:
        parts = work.halves()
        if parts:
            return ''.join(look_at(part, directory) for part in parts if not part.is_clean_already())
    return found


def forget_unused():
    for name in os.listdir(CACHE):
        path = os.path.join(CACHE, name)
        if time.time() - os.path.getmtime(path) > MAX_AGE:
            os.unlink(path)


def main():
    build, *files = sys.argv[1:]
    os.makedirs(CACHE, exist_ok=True)
    forget_unused()
    directory = os.path.join(build, 'together')
    os.makedirs(directory, exist_ok=True)
    every = list(pieces_of_work(build, {os.path.relpath(path, ROOT) for path in files}))
    due = [work for work in every if not work.is_clean_already()]
    due.sort(key=lambda work: -len(work.sources))
    changed = {path for work in due for path in work.sources}
    total = {path for work in every for path in work.sources}
    print(f'== clang: {len(total)} sources, {len(changed)} to look at', flush=True)

    printing = threading.Lock()
    failed = 0

    def handle(work):
        nonlocal failed
        found = look_at(work, directory)
        if found:
            with printing:
                failed += 1
                print(found.replace(ROOT + '/', ''), end='', flush=True)

    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        list(pool.map(handle, due))
    print(f'== clang: {failed} pieces of work with findings' if failed else '== clang: clean')
    return 1 if failed else 0


IDENTITY = identity()

if __name__ == '__main__':
    sys.exit(main())
