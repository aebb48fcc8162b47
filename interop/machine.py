"""A Debian machine of one's own: a fresh installation in a folder, booted with its systemd."""

import os
import subprocess
import time

FOLDER = os.path.dirname(os.path.abspath(__file__))
PACKAGES = "ca-certificates,dbus,dbus-user-session,libpam-systemd,procps,systemd,systemd-sysv"
USER, UID = "ann", 1000


def wait_for(condition, what, seconds=60):
    """The first true value of the condition."""
    end = time.monotonic() + seconds
    while not (value := condition()):
        if time.monotonic() > end:
            raise TimeoutError(f"{what} did not come in {seconds} s")
        time.sleep(0.1)
    return value


def install(root, mirror):
    """Debian's stable release of the packages' build machine, with what a login needs."""
    subprocess.run(["debootstrap", "--variant=minbase", f"--include={PACKAGES}", "bookworm", root,
                    *([mirror] if mirror else [])], check=True, stdout=subprocess.DEVNULL)
    # As this machine reaches its archives, proxies and certificates included.
    for path in ("/etc/resolv.conf", "/etc/apt/apt.conf.d", "/etc/apt/sources.list",
                 "/etc/apt/sources.list.d", "/etc/ssl/certs/ca-certificates.crt"):
        if os.path.exists(path):
            subprocess.run(["cp", "-a", "-L", "-T", path, root + path], check=True)


class Machine:
    """Booted at first, and off once close() has returned. Its user ann has a session of her own."""

    def __init__(self, root):
        self.root = root
        groups = subprocess.run(["findmnt", "-nt", "cgroup2", "-o", "TARGET"], check=True, text=True,
                                capture_output=True).stdout.split()[0]
        self.group = os.path.join(groups, f"verdo-machine-{os.getpid()}")
        os.mkdir(self.group)
        self.child = subprocess.Popen(
            ["sh", "-c", 'echo $$ > "$0/cgroup.procs" && exec unshare --cgroup --mount --pid --uts '
             '--ipc --fork --kill-child "$1" "$2"', self.group, f"{FOLDER}/enter-machine", root])
        self.first = wait_for(self._first_process, "the machine's first process")
        wait_for(lambda: self.run("systemctl", "is-system-running", check=False).stdout.strip()
                 in ("running", "degraded"), "the machine")

    def _first_process(self):
        if self.child.poll() is not None:
            raise RuntimeError("the machine does not start")
        with open(f"/proc/{self.child.pid}/task/{self.child.pid}/children", encoding="ascii") as file:
            children = file.read().split()
        if not children:
            return None
        with open(f"/proc/{children[0]}/comm", encoding="ascii") as file:
            return int(children[0]) if file.read() == "systemd\n" else None

    def run(self, *command, check=True, text=""):
        """Runs a command as root. Output and errors are in the result's stdout."""
        result = subprocess.run(
            ["nsenter", "--target", str(self.first), "--all", "env", "-i", "HOME=/root", "PATH=/usr/sbin:/usr/bin:/sbin:/bin",
             "LANG=C.UTF-8", "DEBIAN_FRONTEND=noninteractive", *command],
            text=True, input=text, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, cwd="/",
            check=False, timeout=600)
        if check and result.returncode != 0:
            raise RuntimeError(f"{' '.join(command)}: status {result.returncode}\n{result.stdout}")
        return result

    def add_user(self):
        self.run("useradd", "--create-home", "--uid", str(UID), USER)
        self.run("loginctl", "enable-linger", USER)
        wait_for(lambda: self.user("systemctl --user is-system-running", check=False).stdout.strip()
                 == "running", f"{USER}'s session")

    def user(self, script, check=True, text=""):
        """Runs a shell script as the user, in her session."""
        run = f"/run/user/{UID}"
        return self.run("runuser", "-u", USER, "--", "env", f"HOME=/home/{USER}",
                        f"XDG_RUNTIME_DIR={run}", f"DBUS_SESSION_BUS_ADDRESS=unix:path={run}/bus",
                        "sh", "-c", f"cd; {script}", check=check, text=text)

    def close(self):
        self.child.kill()  # and with it, as it was asked to, the machine
        self.child.wait()
        with open(os.path.join(self.group, "cgroup.events"), encoding="ascii") as file:
            wait_for(lambda: file.seek(0) == 0 and "populated 0" in file.read(), "the machine's end")
        for folder, _, _ in os.walk(self.group, topdown=False):
            os.rmdir(folder)
