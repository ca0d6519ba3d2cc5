"""A machine under a real systemd: a container that shares /usr with this one and has the rest for itself.

Its agent is a stub that writes a line into `starts` at each start, and then does what the test has put into
`behaviour`. Both lie in a folder outside, so that they outlive a reboot.
"""
import os
import shutil
import subprocess
import time
from pathlib import Path

PATIENCE = 60
REBOOT = 133
PROGRAMS = ["/usr/bin/systemd-nspawn", "/lib/systemd/systemd"]
STUB = b"""#!/bin/sh
echo "$(ulimit -Sn) $(ulimit -Hn)" >>/out/starts
[ -e /out/behaviour ] && . /out/behaviour
exec sleep infinity
"""


class NoMachines(Exception):
    """This machine cannot boot another one."""


def check_machines():
    if os.geteuid() != 0:
        raise NoMachines("only root can boot a machine with systemd-nspawn")
    missing = [path for path in PROGRAMS if not os.path.exists(path)]
    if missing:
        raise NoMachines(f"{missing[0]} is not installed")
    if not cgroup_folder():
        raise NoMachines("no control groups of version 2 are mounted here")
    trial = subprocess.run(["unshare", "--mount", "--pid", "--cgroup", "--net", "--fork", "true"],
                           capture_output=True, text=True, check=False)
    if trial.returncode != 0:
        raise NoMachines(trial.stderr.strip())
    trial = cgroup_folder() / f"trial-{os.getpid()}"
    try:
        trial.mkdir()
        trial.rmdir()
    except OSError as error:
        raise NoMachines(f"no control group can be made: {error}") from error


def cgroup_folder():
    """The folder of this process's own control group of version 2."""
    mounted = [line.split() for line in Path("/proc/self/mounts").read_text().splitlines()]
    place = next((fields[1] for fields in mounted if fields[2] == "cgroup2"), None)
    own = next((line[len("0::"):] for line in Path("/proc/self/cgroup").read_text().splitlines()
                if line.startswith("0::")), None)
    return Path(place + own) if place and own else None


class Machine:
    def __init__(self, name, root, out):
        self.name, self.root, self.out = name, root, out
        self.agent = next(root.glob("usr/**/bin/tessard"))
        self.process = None
        self.binds = []         # further options of systemd-nspawn
        self.cgroup = cgroup_folder() / f"tessard-{name[:40]}-{os.getpid()}"
        out.mkdir()
        self.fill()
        self.systemctl("enable", "tessard.service")
        self.be_agent(STUB)

    def fill(self):
        for name in ("etc/systemd/system", "var", "run", "tmp", "proc", "sys", "dev", "root", "out"):
            (self.root / name).mkdir(parents=True, exist_ok=True)
        for name in ("bin", "sbin", "lib", "lib64"):
            (self.root / name).symlink_to(f"usr/{name}")
        self.write("etc/machine-id", "0123456789abcdef0123456789abcdef\n")  # empty, it would be a first boot
        shutil.copytree("/etc/alternatives", self.root / "etc/alternatives", symlinks=True)
        self.write("etc/os-release", "ID=machine\n")
        self.write("etc/passwd", "root:x:0:0::/root:/bin/sh\n")
        self.write("etc/group", "root:x:0:\n")
        units = self.root / "etc/systemd/system"
        (units / "default.target").symlink_to("/usr/lib/systemd/system/multi-user.target")
        for unit in ("mosquitto.service", "getty.target"):
            self.mask(unit)

    def write(self, path, text):
        file = self.root / path
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)
        return file

    def mask(self, unit):
        (self.root / "etc/systemd/system" / unit).symlink_to("/dev/null")

    def bind(self, outside, inside):
        self.binds.append(f"--bind={outside}:{inside}")

    def drop_in(self, unit, text):
        self.write(f"etc/systemd/system/{unit}.d/test.conf", text)

    def be_agent(self, program):
        self.agent.write_bytes(program)
        self.agent.chmod(0o755)

    def behave(self, shell):
        (self.out / "behaviour").write_text(shell + "\n")

    def systemctl(self, *words):
        """On the files of the machine, while it is down."""
        subprocess.run(["systemctl", f"--root={self.root}", *words], check=True, capture_output=True)

    def boot(self, tmp_in_memory=True):
        """Returns when systemd has started what it could."""
        self.cgroup.mkdir(exist_ok=True)
        command = ["systemd-nspawn", "--quiet", "--keep-unit", "--register=no", "--private-network",
                   f"--machine=m{os.getpid()}", f"--directory={self.root}", f"--bind={self.out}:/out",
                   f"--overlay-ro=/usr:{self.root}/usr:/usr", *self.binds, "--boot", "--", "--log-target=console",
                   "--show-status=no", "--log-color=no"]
        environment = {**os.environ, "SYSTEMD_NSPAWN_UNIFIED_HIERARCHY": "1",
                       "SYSTEMD_NSPAWN_TMPFS_TMP": "1" if tmp_in_memory else "0"}
        with open(self.out / "console", "ab") as console:
            # In a control group of its own: machines side by side would take each other's for their own.
            self.process = subprocess.Popen(
                ["sh", "-c", f'echo $$ >"{self.cgroup}/cgroup.procs" && exec "$@"', "sh", *command],
                stdin=subprocess.DEVNULL, stdout=console, stderr=console, env=environment)
        self.wait(self.is_up, "systemd to be up")

    def is_up(self):
        if self.process.poll() is not None:
            raise AssertionError(f"the machine ended with {self.process.returncode}:\n{self.console()}")
        if not self.leader():
            return False
        state = self.run("systemctl is-system-running", check=False).strip()
        return state in ("running", "degraded")

    def leader(self):
        """The process outside that is the machine's first one."""
        pids = [self.process.pid]
        while pids:
            pid = pids.pop()
            try:
                status = Path(f"/proc/{pid}/status").read_text()
                pids += [int(word) for word in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]
            except OSError:
                continue
            numbers = next(line for line in status.splitlines() if line.startswith("NSpid:")).split()[1:]
            if len(numbers) > 1 and numbers[-1] == "1":
                return pid
        return None

    def run(self, shell, check=True):
        done = subprocess.run(["nsenter", "--target", str(self.leader()), "--all", "/bin/sh", "-c", shell],
                              capture_output=True, text=True, check=False, timeout=PATIENCE)
        if check and done.returncode != 0:
            raise AssertionError(f"{shell}: {done.returncode}: {done.stderr}")
        return done.stdout

    def show(self, unit, name):
        return self.run(f"systemctl show --property={name} --value {unit}").strip()

    def starts(self):
        file = self.out / "starts"
        return file.read_text().splitlines() if file.exists() else []

    def wait_for_starts(self, number):
        self.wait(lambda: len(self.starts()) >= number, lambda: f"start {number} of the agent, not {self.starts()}")

    def kill_agent(self):
        self.run("kill -9 $(systemctl show --property=MainPID --value tessard.service)")

    def wait_for_end(self):
        return self.process.wait(PATIENCE)

    def console(self):
        file = self.out / "console"
        return file.read_text(errors="replace") if file.exists() else ""

    def wait(self, condition, what):
        end = time.monotonic() + PATIENCE
        while not condition():
            if time.monotonic() > end:
                raise AssertionError(f"waited for {what() if callable(what) else what} for {PATIENCE} s")
            if self.process.poll() is not None:
                raise AssertionError(f"the machine ended with {self.process.returncode}, waiting for "
                                     f"{what() if callable(what) else what}")
            time.sleep(0.05)

    def down(self):
        if self.process and self.process.poll() is None:
            leader = self.leader()
            (os.kill(leader, 9) if leader else self.process.kill())
            self.process.wait(PATIENCE)
        # systemd-nspawn makes the same one in the older hierarchy beside it, where there is one.
        for group in [self.cgroup, *Path("/sys/fs/cgroup/systemd").rglob(self.cgroup.name)]:
            for folder, _, _ in os.walk(group, topdown=False):
                os.rmdir(folder)
