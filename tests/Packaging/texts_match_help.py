"""Manual pages and completions name what --help names: no option, argument, choice or command less,
and none more. Bash completes for real; of zsh and fish the sources are read."""

import os
import pty
import re
import select
import signal
import subprocess
import tempfile
import time
import unittest

COMPLETIONS = os.path.join(os.path.dirname(__file__), "../../packaging/completions")
PROGRAMS = os.environ["VERDO_PROGRAMS"]
MANUAL = os.environ["VERDO_MANUAL"]


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def help_of(*command):
    return subprocess.run([os.path.join(PROGRAMS, command[0]), *command[1:], "--help"], check=True,
                          capture_output=True, text=True, timeout=20).stdout


def named(rows):
    """Of each option and command: its argument. A row may have several names."""
    return {name: argument for names, argument in rows for name in re.split(r"[ ,]+", names)}


class Told:
    """What the help tells. Doctor's own options are apart: they are taken behind the word alone."""

    def __init__(self, program):
        self.text = help_of(program)
        self.all, self.choices = self.entries(self.text), {}
        self.doctor = {}
        if "doctor" in self.all:
            text = help_of(program, "doctor")
            self.doctor = {name: argument for name, argument in self.entries(text).items()
                           if name not in self.all}
            self.text += text
        for name, words in re.findall(r"^  (--\S+) [A-Z]+ .*: ((?:\w+, )+\w+ or \w+)$", self.text,
                                      re.M):
            self.choices[name] = re.split(", | or ", words)
        self.options = {n: a for n, a in self.all.items() if n.startswith("-")}
        self.commands = self.all.keys() - self.options.keys()

    @staticmethod
    def entries(text):
        return named(re.findall(
            r"^  (-[-\w,]+|[a-z]+) ?(\[?[A-Z]+\]?)?(?: \.\.\.)? {2,}\S", text, re.M))


def in_manual(program):
    """The same of the manual page: all, doctor's own, and the page itself."""
    page = read(f"{MANUAL}/{program}.1")
    found = []
    for part in re.split(r"^\.Ss Doctor$", page, flags=re.M):
        part = part.partition("\n.Ss")[0] if found else part
        rows = re.findall(r"^\.It (?:Fl|Cm) (.*)$", part, re.M)
        flags = re.findall(r"^\.It Fl (.*)$", part, re.M)
        entries = {}
        for row in rows:
            names, _, argument = row.partition(" Ar ")
            optional = names.endswith(" Op")
            names = names.removesuffix(" Op").replace(" , Fl ", " ").split()
            for name in names:
                name = "-" + name if row in flags else name
                entries[name] = f"[{argument}]" if optional else argument
        found.append(entries)
    return found[0], found[1] if len(found) > 1 else {}, page


def in_zsh(program):
    text = read(f"{COMPLETIONS}/zsh/_{program}")
    option = (r"""^\s*['"](?:\([^)]*\))?\*?(?:'\{)?(-[-\w,]+)(?:\}')?=?\[[^\]]*\]"""
              r"""(?::([A-Z]+):)?(?:\(([\w ]+)\))?""")
    main, _, doctor = text.partition("\n  options+=(")
    rows, more = re.findall(option, main, re.M), re.findall(option, doctor, re.M)
    commands = re.findall(r"^  '([a-z]+):|'1:command:\(\((\w+)", text, re.M)
    entries = named([row[:2] for row in rows] + [(a or b, "") for a, b in commands])
    doctor_entries = named([row[:2] for row in more])
    stray = set(re.findall(r"--[a-z][-a-z]+", text)) - entries.keys() - doctor_entries.keys()
    return entries, doctor_entries, {row[0]: row[2].split() for row in rows if row[2]}, stray


def in_fish(program):
    entries, doctor, choices = {}, {}, {}
    for line in read(f"{COMPLETIONS}/fish/{program}.fish").splitlines():
        if not line.startswith(f"complete -c {program} -") or line.endswith(" -f"):
            continue
        words = re.sub(r" -d '.*", "", line)
        options = ["--" + n for n in re.findall(r" -l (\S+)", words)]
        options += ["-" + n for n in re.findall(r" -[so] (\S+)", words)]
        argument = "an argument" if re.search(" -x| -rF", words) else ""
        into = doctor if "'__fish_seen_subcommand_from doctor'" in words else entries
        for name in options:
            into[name] = argument
            if found := re.search(r" -a '([\w ]+)'", words):
                choices[name] = found[1].split()
        if not options:
            entries[re.search(r" -a (\w+)", words)[1]] = ""
    return entries, doctor, choices


class Bash:
    """An interactive bash in an empty directory, in which the programs only tell their arguments;
    it finds no other program."""

    def __init__(self, home):
        self.answer = f"{home}/answer"
        with open(f"{home}/rc", "w", encoding="utf-8") as file:
            for name in os.listdir(f"{COMPLETIONS}/bash"):
                file.write(f". '{os.path.abspath(COMPLETIONS)}/bash/{name}'\n")
                file.write(f"{name}() {{ printf '%s\\n' \"$@\" END >'{self.answer}'; }}\n")
        os.mkdir(f"{home}/here")
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            os.chdir(f"{home}/here")
            os.execve("/bin/bash", ["bash", "--noprofile", "--rcfile", f"{home}/rc", "-i"],
                      {"PATH": "", "HOME": home, "TERM": "dumb", "INPUTRC": "/dev/null"})

    def complete(self, line, key="\x1b*"):
        """The words of a line once this key was pressed: all completions, unless it is a tab."""
        os.write(self.terminal, f"{line}{key}\n".encode())
        seen, deadline = b"", time.monotonic() + 20
        while time.monotonic() < deadline:
            if select.select([self.terminal], [], [], 0.01)[0]:
                seen += os.read(self.terminal, 4096)
            if os.path.exists(self.answer) and (text := read(self.answer)).endswith("END\n"):
                os.remove(self.answer)
                return text.splitlines()[:-1]
        raise AssertionError(f"bash does not end {line!r}: {seen.decode()}")

    def close(self):
        os.kill(self.pid, signal.SIGHUP)
        os.close(self.terminal)
        os.waitpid(self.pid, 0)


class TextsTest(unittest.TestCase):
    def each(self, check):
        for program in ("verdo-driver", "verdo-driver-app", "verdo-browser"):
            with self.subTest(program):
                check(program, Told(program))

    def test_help_is_read_to_the_end(self):
        def check(_, told):
            mentioned = set(re.findall(r"(?<![\w-])--?[A-Za-z][-\w]+", told.text))
            self.assertEqual(mentioned - told.all.keys() - told.doctor.keys(), set())
            self.assertGreater(len(told.all), 5)
        self.each(check)

    def test_misspelt_option_is_not_taken_for_none(self):
        def check(program, _):
            ended = subprocess.run([os.path.join(PROGRAMS, program), "--frobnicate"], timeout=20,
                                   capture_output=True, text=True, check=False)
            self.assertEqual(ended.returncode, 2)
            self.assertRegex(ended.stderr, f"^{program}: .*--frobnicate.*see {program} --help")
        self.each(check)

    def test_manual_pages(self):
        def check(program, told):
            entries, doctor, page = in_manual(program)
            self.assertEqual(entries, told.all)
            self.assertEqual(doctor, told.doctor)
            mentioned = {"-" + name for name in re.findall(r"\bFl (\S+)", page)}
            self.assertEqual(mentioned - told.all.keys() - told.doctor.keys(), set())
            for choice in sum(told.choices.values(), []):
                self.assertRegex(page, rf"(?m)^\.Cm {choice}\b")
            ends = page[page.index(".Sh EXIT STATUS"):]
            self.assertEqual(re.findall(r"^\.It (\d+)$", ends, re.M), re.findall(
                r"\d+", told.text.partition("\nUsage: verdo-driver doctor")[0]
                .partition("Exit status:")[2]))
            variables = " ".join(re.findall(r"^\.It Ev (.*)$", page, re.M)).split()
            self.assertLessEqual(set(re.findall(r"\b[A-Z]+_[A-Z_]+\b", told.text)), set(variables))
        self.each(check)

    def test_zsh(self):
        def check(program, told):
            entries, doctor, choices, stray = in_zsh(program)
            arguments = {n: a if n.startswith("-") else "" for n, a in told.all.items()}
            self.assertEqual((entries, doctor, choices, stray),
                             (arguments, told.doctor, told.choices, set()))
        self.each(check)

    def test_fish(self):
        def check(program, told):
            arguments = {n: "an argument" if a and n.startswith("-") else ""
                         for n, a in told.all.items()}
            self.assertEqual(in_fish(program), (arguments, told.doctor, told.choices))
        self.each(check)

    def test_bash(self):
        with tempfile.TemporaryDirectory() as home:
            bash = Bash(home)
            self.addCleanup(bash.close)
            os.makedirs(f"{home}/here/a folder")
            with open(f"{home}/here/a file", "w", encoding="utf-8"):
                pass
            self.each(lambda program, told: self.complete_all(bash, program, told))
            for line, key, words in (
                    ("verdo-driver do", "\t", ["doctor"]),
                    ("verdo-driver --co", "\t", ["--color"]),
                    ("verdo-driver --color=al", "\t", ["--color=always"]),
                    ("verdo-driver --ca-cert a\\ fi", "\t", ["--ca-cert", "a file"]),
                    ("verdo-driver --ca-cert=a\\ fi", "\t", ["--ca-cert=a file"]),
                    ("verdo-driver --env-file ", "\x1b*", ["--env-file", "a file", "a folder"]),
                    ("verdo-driver --extra-path ", "\x1b*", ["--extra-path", "a folder"]),
                    ("verdo-driver --exec mapf", "\t", ["--exec", "mapfile"]),
                    ("verdo-browser lo", "\t", ["login"]),
                    ("verdo-browser close ", "\x1b*", ["close"])):
                self.assertEqual(bash.complete(line, key), words)

    def complete_all(self, bash, program, told):
        def words(line):
            return sorted(bash.complete(f"{program} {line}"))
        self.assertEqual(words(""), sorted(told.all))
        for name, argument in told.options.items():
            if argument:
                self.assertEqual(words(f"{name} -"), sorted([name, "-"]), name)
        for name, choices in told.choices.items():
            self.assertEqual(words(f"{name} "), sorted([name, *choices]))
        if told.doctor:
            flags = [name for name, argument in told.options.items() if not argument]
            for name in flags:
                self.assertEqual(words(f"{name} d"), sorted([name, "doctor"]))
            behind = [*told.options, *told.doctor, "doctor"]
            self.assertEqual(words("doctor "), sorted(behind))


if __name__ == "__main__":
    unittest.main()
