"""The packages on a fresh Debian machine. One line for each check.
Usage: packages.py BUILD [MIRROR]"""

import glob
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import urllib.request

import machine as machines
from machine import USER, Machine, wait_for

UNIT = "verdo-driver"
HOME = f"/home/{USER}"
ENV_FILE = f"{HOME}/.config/verdo/driver.env"
OLDER = "2026.09.03"
failures = 0


def check(what, is_so, seen=""):
    global failures
    failures += not is_so
    print(f"{'ok  ' if is_so else 'FAIL'} {what}" + ("" if is_so else f" — {seen}"), flush=True)


class Service:
    """The local service, outside the machine, whose network is the host's."""

    def __init__(self, program):
        self.program, self.token, self.control = program, "token-of-ann", "control-of-the-test"
        self.port = self.lanes = 0
        self.start()

    def start(self):
        self.child = subprocess.Popen(
            [self.program, "--port", str(self.port), "--token", self.token],
            env={"VERDO_CONTROL_TOKEN": self.control}, stdout=subprocess.PIPE, text=True)
        self.url = self.child.stdout.readline().split()[-1]
        self.port = int(self.url.rsplit(":", 1)[1])

    def stop(self):
        self.child.terminate()
        self.child.wait()

    def ask(self, path, body=None):
        request = urllib.request.Request(
            f"{self.url}/control/{path}", headers={"Authorization": f"Bearer {self.control}"},
            data=None if body is None else json.dumps(body).encode())
        with urllib.request.build_opener(urllib.request.ProxyHandler({})).open(request) as answer:
            return json.load(answer)

    def run_job(self, script):
        """In a lane that no open poll has named as busy, for a quick start."""
        self.lanes += 1
        job = self.ask("jobs", {"label": f"lane {self.lanes}", "payload": script, "task_space": "u1-mail"})["id"]
        answer = self.ask(f"jobs/{job}/wait?for=done&timeout=60")["job"]
        lines = self.ask(f"jobs/{job}/lines?from=0&wait=0")["lines"]
        return answer, lines


def repacked(package, folder):
    """The same package, as its older version."""
    subprocess.run(["dpkg-deb", "-R", package, folder], check=True)
    version = os.path.basename(package).split("_")[1]
    for path in (f"{folder}/DEBIAN/control", *glob.glob(f"{folder}/usr/share/verdo-browser/lib/*")):
        with open(path, encoding="utf-8") as file:
            text = file.read()
        with open(path, "w", encoding="utf-8") as file:
            file.write(text.replace(version, OLDER))
    package = package.replace(version, OLDER).replace("/packages/", "/older/")
    os.makedirs(os.path.dirname(package), exist_ok=True)
    subprocess.run(["dpkg-deb", "--root-owner-group", "-b", folder, package], check=True,
                   stdout=subprocess.DEVNULL)
    return package


class Driver:
    """The unit in the user's session."""

    def __init__(self, machine):
        self.machine = machine

    def systemctl(self, command, is_checked=True):
        return self.machine.user(f"systemctl --user {command} 2>&1", check=is_checked).stdout

    def show(self, *names):
        text = self.systemctl(f"show {UNIT} -p {','.join(names)}")
        values = dict(line.split("=", 1) for line in text.splitlines())
        return values[names[0]] if len(names) == 1 else values

    def wait_for(self, name, value, seconds=60):
        try:
            wait_for(lambda: re.fullmatch(value, self.show(name)), name, seconds)
            return True
        except TimeoutError:
            return False

    def processes(self):
        """Of the unit: the driver, its jobs, and what they have started."""
        group = self.show("ControlGroup")
        if not group:
            return []
        return self.machine.run("sh", "-c", f"cat /sys/fs/cgroup{group}/cgroup.procs",
                                check=False).stdout.split()

    def override(self, *lines):
        self.machine.user(f"mkdir -p ~/.config/systemd/user/{UNIT}.service.d; cat > "
                          f"~/.config/systemd/user/{UNIT}.service.d/test.conf",
                          text="\n".join(("[Service]", *lines, "")))
        self.systemctl("daemon-reload")

    def journal(self):
        return self.machine.user(f"journalctl --user -u {UNIT} --no-pager -o cat",
                                 check=False).stdout


def files_of(machine):
    """All of the machine's files, but for what any installation and any session changes."""
    script = ("find / -xdev ( -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp "
              "-o -path /home -o -path /var/log -o -path /var/cache -o -path /var/lib/apt "
              "-o -path /var/lib/dpkg -o -path /root -o -path /var/lib/systemd ) -prune -o -print")
    return set(machine.run(*script.split()).stdout.splitlines())


def check_unit(machine):
    unit = f"/usr/share/systemd/user/{UNIT}.service"
    found = machine.user(f"systemd-analyze --user verify --man=no {unit} 2>&1", check=False)
    check("systemd finds nothing wrong with the unit", found.returncode == 0 and not found.stdout,
          found.stdout)
    found = machine.user(f"systemd-analyze --user security --offline=yes --no-pager {unit} 2>&1",
                         check=False).stdout
    print(f"     {found.splitlines()[-1].strip()}")


def check_first_start(machine, driver, service):
    machine.user(f"systemctl --user start {UNIT}", check=False)
    check("without a token it ends with status 2, and is not started again",
          driver.show("ActiveState", "ExecMainStatus", "NRestarts")
          == {"ActiveState": "failed", "ExecMainStatus": "2", "NRestarts": "0"}, driver.journal())
    check("its status says what to do", "no driver token" in driver.show("StatusText"),
          driver.show("StatusText"))
    mode = machine.user(f"stat -c %a {ENV_FILE}", check=False).stdout.strip()
    check("the first start has put a template of the env file there, for the user alone",
          mode == "600", mode)
    machine.user(f"sed -i 's|^VERDO_DRIVER_TOKEN=.*|&{service.token}|; "
                 f"s|^VERDO_SERVER_URL=.*|&{service.url}|' {ENV_FILE}")
    driver.systemctl(f"enable --now {UNIT}")
    check("it is active once the service has taken the hello",
          driver.show("StatusText") == "serving local; idle", driver.show("StatusText"))
    machine.user("/usr/libexec/verdo-driver/make-env-file")
    check("a later start leaves the env file alone",
          service.token in machine.user(f"cat {ENV_FILE}").stdout)


SCRIPT = """const page = await openTaskSpace('u1-mail');
await page.goto('data:text/html,<title>from Chromium</title>');
cliLog(await page.title());"""


def check_job(machine, driver, service):
    job, lines = service.run_job("cliLog(1 + 1)")
    check("a job runs", job["exit_code"] == 0 and any("2" in str(line) for line in lines),
          f"{job} {lines}")


def check_app(machine, newer):
    """Without a display: Qt draws into memory."""
    machine.user("systemd-run --user --unit app --setenv QT_QPA_PLATFORM=offscreen verdo-driver-app")

    def status():
        told = machine.user("QT_QPA_PLATFORM=offscreen verdo-driver-app --status", check=False)
        return json.loads(told.stdout) if told.returncode == 0 else {}

    wait_for(status, "the app")
    check("no restart of the app is due", status()["restartDue"] is False, status())
    machine.run("apt-get", "install", "-y", *newer)
    check("after its upgrade one is", status()["restartDue"] is True, status())
    machine.user("QT_QPA_PLATFORM=offscreen verdo-driver-app --quit")


def check_restarts(driver):
    """What systemd does after each end, before the hello and after it."""
    print("     end             before the hello   after it")
    for end, restarts in (("0", False), ("1", True), ("2", False), ("3", False), ("6", False),
                          ("7", False), ("127", False), ("130", False), ("KILL", True),
                          ("ABRT", True), ("SEGV", True)):
        act = f"exit {end}" if end.isdigit() else f"kill -{end} $$"
        seen = []
        for ready in ("", "systemd-notify --ready; sleep 0.2; "):
            driver.override("NotifyAccess=all", "RestartSec=100ms", "ExecStartPre=", "ExecStart=",
                            f'ExecStart=/bin/sh -c "{ready}{act}"'.replace("$$", "$$$$"))
            driver.systemctl(f"reset-failed {UNIT}", is_checked=False)
            driver.systemctl(f"start --no-block {UNIT}")
            if restarts:
                seen.append(driver.wait_for("NRestarts", "[2-9]|..+", 20))
            else:
                driver.wait_for("ActiveState", "inactive|failed", 20)
                time.sleep(0.5)
                seen.append(driver.show("NRestarts") != "0"
                            or driver.show("ActiveState") not in ("inactive", "failed"))
            driver.systemctl(f"stop {UNIT}")
        print(f"     {end:15s} {'restarts' if seen[0] else 'stays down':18s} "
              f"{'restarts' if seen[1] else 'stays down'}")
        check(f"after an end with {end} it is {'' if restarts else 'not '}started again",
              seen == [restarts, restarts], seen)
    driver.override()


def check_outage(driver, service):
    driver.override("RestartSec=1s")
    service.stop()
    driver.systemctl(f"start --no-block {UNIT}")
    check("without the service it tries again and again, beyond any limit of starts",
          driver.wait_for("NRestarts", "[6-9]|..+", 40), driver.show("NRestarts"))
    service.start()
    check("and serves once the service is there", driver.wait_for("StatusText", "serving.*"))
    driver.systemctl(f"stop {UNIT}")


def check_watchdog(machine, driver):
    driver.override("WatchdogSec=15s", "RestartSec=1s")
    driver.systemctl(f"start {UNIT}")
    time.sleep(32)
    check("polls longer than the watchdog's limit leave it alone", driver.show("NRestarts") == "0"
          and driver.show("ActiveState") == "active", driver.journal())
    begin = time.monotonic()
    machine.run("kill", "-STOP", driver.show("MainPID"))
    check("the watchdog ends a driver that hangs, and it is started again",
          driver.wait_for("NRestarts", "1", 40) and driver.wait_for("StatusText", "serving.*"),
          driver.journal())
    print(f"     {time.monotonic() - begin:.0f} s after it was stopped, with WatchdogSec=15s")
    driver.systemctl(f"stop {UNIT}")
    driver.override()


def check_stop(driver, service):
    driver.systemctl(f"start {UNIT}")
    service.run_job(SCRIPT)
    job = service.ask("jobs", {"label": "mail", "payload": "await new Promise(() => setInterval("
                               "() => {}, 1000));", "task_space": "u1-mail"})["id"]
    check("the status names the busy lane",
          driver.wait_for("StatusText", "serving local; busy: mail"), driver.show("StatusText"))
    wait_for(lambda: len(driver.processes()) > 3, "the job's processes")
    begin = time.monotonic()
    driver.systemctl(f"stop {UNIT}")
    took = time.monotonic() - begin
    state = driver.show("ActiveState", "Result", "ExecMainStatus")
    check("a stop amid a job is a success with status 130", state
          == {"ActiveState": "inactive", "Result": "success", "ExecMainStatus": "130"}, state)
    print(f"     it took {took:.1f} s")
    check("no process of a job or a browser is left", driver.processes() == [])
    check("the service has heard of the job's end",
          service.ask(f"jobs/{job}")["exit_code"] == -15, service.ask(f"jobs/{job}"))


def main(build, mirror):
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # a time limit: the machine is ended, too
    work = tempfile.mkdtemp(prefix="verdo-packages-", dir=os.environ.get("TMPDIR", "/var/tmp"))
    packages = sorted(glob.glob(f"{build}/packages/*.deb"))
    service = Service(f"{build}/bin/verdo-local-service")
    machine = None
    try:
        older = [repacked(package, f"{work}/{i}") for i, package in enumerate(packages)]
        root = f"{work}/root"
        print("== installing a fresh machine", flush=True)
        machines.install(root, mirror)
        for package in (*packages, *older):
            shutil.copy(package, f"{root}/root/")
        machine = Machine(root)
        machine.add_user()
        driver = Driver(machine)
        machine.run("apt-get", "update")
        # What people have before: node and a browser.
        machine.run("apt-get", "install", "-y", "--no-install-recommends", "nodejs",
                    "chromium-headless-shell")
        before = files_of(machine)

        def names(paths):
            return [f"/root/{os.path.basename(path)}" for path in paths]

        def installed():
            return set(machine.run("dpkg-query", "-W", "-f", "${Package}\n").stdout.split())

        others = installed()
        print("== installing, starting, running", flush=True)
        begin = time.monotonic()
        service_packages = [path for path in older if "-app_" not in path]
        machine.run("apt-get", "install", "-y", "--no-install-recommends", *names(service_packages))
        print(f"     verdo-driver and verdo-browser with what they need: "
              f"{time.monotonic() - begin:.1f} s")
        check_unit(machine)
        check_first_start(machine, driver, service)
        check_job(machine, driver, service)
        job, lines = service.run_job(SCRIPT)
        check("a job runs in Chromium under the unit's limits",
              job["exit_code"] == 0 and "from Chromium" in str(lines), f"{job} {lines}")
        spaces = machine.run("sh", "-c", "for p in $0; do readlink /proc/$p/ns/user; done | sort -u",
                             " ".join(driver.processes())).stdout.split()
        check("and in Chromium's own sandbox, of user namespaces", len(spaces) > 1, spaces)

        print("== upgrading", flush=True)
        said = machine.run("apt-get", "install", "-y", "--no-install-recommends",
                           *names(path for path in packages if "-app_" not in path)).stdout
        check("the upgrade says that a running driver wants a restart",
              f"version {OLDER}" in said and f"restart {UNIT}" in said, said)
        check("the driver goes on meanwhile", service.run_job("cliLog('on')")[0]["exit_code"] == 0)
        _, lines = service.run_job(SCRIPT)
        check("the browser that runs says that it is of the older version", OLDER in str(lines),
              lines)
        driver.systemctl(f"restart {UNIT}")
        _, lines = service.run_job(SCRIPT)
        check("after a restart all is new",
              OLDER not in str(lines) and "from Chromium" in str(lines), lines)
        begin = time.monotonic()
        machine.run("apt-get", "install", "-y", "--no-install-recommends",
                    *names(path for path in older if "-app_" in path))
        print(f"     verdo-driver-app with what it needs: {time.monotonic() - begin:.1f} s")
        check_app(machine, names(path for path in packages if "-app_" in path))

        print("== the service manager", flush=True)
        check_stop(driver, service)
        check_outage(driver, service)
        check_watchdog(machine, driver)
        check_restarts(driver)

        print("== removing", flush=True)
        driver.systemctl(f"start {UNIT}")
        driver.systemctl(f"disable --now {UNIT}")
        ours = ["verdo-driver", "verdo-browser", "verdo-driver-app"]
        machine.run("apt-get", "remove", "-y", *ours)
        check("the user's files outlive a removal",
              service.token in machine.user(f"cat {ENV_FILE}").stdout)
        said = machine.run("apt-get", "purge", "-y", *ours).stdout
        for place in ("~/.config/verdo ", "~/.local/state/verdo-browser", "the keyring"):
            check(f"the purge says that {place.strip()} stays", place in said, said)
        machine.run("apt-get", "purge", "-y", *(installed() - others))
        left = sorted(files_of(machine) - before)
        check("a purge leaves nothing outside the home directories", not left, left)
        print("     left in the home directory: " + machine.user(
            "find . -path ./.config/systemd -prune -o -newer .profile -type f -print").stdout
            .replace("\n", " "))
    finally:
        service.stop()
        if machine:
            machine.close()
        shutil.rmtree(work, ignore_errors=True)
    print(f"== {failures} failed" if failures else "== all is well")
    return 1 if failures else 0


sys.exit(main(*sys.argv[1:]))
