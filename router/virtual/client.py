"""What one does to a router from outside: used by the command, the tests and the demonstration."""
import json
import os
import secrets
import shutil
import subprocess
import time
from pathlib import Path

from router.virtual import image, services
from router.virtual.events import EventReader, told
from router.virtual.state import DEFAULT_ROOT, TREE, StateFolder, connect_unix
from router.virtual.tail import Tail
from router.virtual.waiting import POLL, Deadline, patience, pause

LAUNCHER = ["unshare", "--user", "--map-root-user", "--net", "--mount", "--",
            "/usr/bin/python3", "-m", "router.virtual.launcher"]
DEVICE_WITH_BUTTON = "5"
# What a wait that fails says of the stream and of the log: that many lines of each.
LAST_EVENTS, LAST_LINES = 12, 8


class RouterError(Exception):
    pass


class NoNamespaces(RouterError):
    """This machine refuses user namespaces: no router can be made on it."""


def check_namespaces():
    probe = subprocess.run([*LAUNCHER[:6], "/bin/true"], capture_output=True, text=True, check=False)
    if probe.returncode != 0:
        raise NoNamespaces("this machine refuses user namespaces, which the virtual router is made of: "
                           + probe.stderr.strip())


class Router:
    def __init__(self, name="router", root=None):
        self.name = name
        self.launcher = None    # the process, when this object started it
        self.state = StateFolder(Path(root or DEFAULT_ROOT) / name)
        self.forget_what_was_read()

    def forget_what_was_read(self):
        self.stream = EventReader(self.state / "events")
        self.log_tail = Tail(self.state / "log/messages")
        self.log_read = b""
        self.acted = 0      # how many events there were when this side last began a boot

    # --- power

    def up(self, build=None, version="1.0.0", wait=30, **options):
        """Boots it, or switches it on again; returns when the agent has been started."""
        if self.launcher_runs():
            self.order(do="on")
            self.acted = len(self.events())
        else:
            self.prepare(build or TREE / "build/release", version, options)
            self.start_launcher()
        self.wait_for_boot(wait)

    def prepare(self, build, version, options):
        check_namespaces()
        self.state.make()
        switches = ("net.off", "broker.off", "clock")
        self.forget_what_was_read()
        for stale in (self.state / "status.json", self.state / "events",
                      *(self.state / "outside" / name for name in switches), *(self.state / "log").iterdir()):
            stale.unlink(missing_ok=True)
        services.forget(self.state / "outside")
        root = image.ensure(build, version)
        self.fill_slots(root, options.pop("flash", False))
        bundle = self.state / "etc/ca-certificates.crt"
        if not bundle.exists():
            bundle.write_bytes((root / image.CA_BUNDLE.lstrip("/")).read_bytes())
        if not options.get("broker", True):
            (self.state / "outside/broker.off").touch()
        self.make_identity(options.get("device_type"))
        self.state.write("options.json", options)

    def fill_slots(self, root, flash):
        """Both hold the image of the build tree, but what an upgrade has installed stays, unless flashed anew."""
        for slot in ("1", "2"):
            place = self.state / "slots" / slot
            if place.is_dir() and not place.is_symlink():
                if not flash:
                    continue
                shutil.rmtree(place)
            place.unlink(missing_ok=True)
            place.symlink_to(root)
        if flash:
            shutil.rmtree(self.state / "data/boot", ignore_errors=True)

    def make_identity(self, device_type=None):
        """What the factory writes once: device type 5 unless told, and a token of its own."""
        factory = self.state / "data/factory"
        factory.mkdir(exist_ok=True)
        if device_type is not None or not (factory / "device_type").exists():
            (factory / "device_type").write_text(f"{5 if device_type is None else device_type}\n")
        if not (factory / "token").exists():
            (factory / "token").touch(mode=0o600)
            (factory / "token").write_text(secrets.token_hex(16) + "\n")

    def trust(self, certificate):
        """Adds a certificate authority to the router's store."""
        with open(self.state / "etc/ca-certificates.crt", "a") as bundle:
            bundle.write(certificate.read_text())

    def start_launcher(self):
        environment = {**os.environ, "PYTHONPATH": str(TREE)}
        with open(self.state / "log/launcher", "ab") as log:
            self.launcher = subprocess.Popen([*LAUNCHER, str(self.state.folder)], env=environment, cwd="/",
                                             stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                             start_new_session=True)

    def wait_for_boot(self, seconds=30, beyond=0):
        """Until a boot later than number `beyond` is up."""
        def booted():
            status = self.status()
            self.raise_if_dead(status)
            return status.get("state") == "up" and status["boots"] > beyond
        self.wait_until(booted, seconds, "the router to boot")

    def raise_if_dead(self, status):
        if self.launcher and self.launcher.poll() is not None:
            raise RouterError(f"the launcher ended: {(self.state / 'log/launcher').read_text()[-2000:]}")
        if status.get("state") == "off" and status["last_end"].startswith("init crashed"):
            raise RouterError(f"{status['last_end']}: {(self.state / 'log/console').read_text()[-2000:]}")

    def forget(self):
        """Takes away everything that this router ever was."""
        self.down()
        shutil.rmtree(self.state.folder, ignore_errors=True)

    def down(self):
        if self.launcher_runs():
            self.order(do="down")
        self.wait_until(lambda: not self.launcher_runs(), 10, "the launcher to end")
        if self.launcher:
            self.launcher.wait()
            self.launcher = None

    def reboot(self, wait=30):
        """As a person at its prompt would."""
        before = self.status()["boots"]
        self.run("/sbin/reboot -f", check=False)
        self.wait_for_boot(wait, before)
        self.acted = self.index_of("boot", before + 1)

    def power_cut(self, off=False, wait=30):
        before = self.order(do="power-cut", off=off)["boots"]
        if not off:
            self.wait_for_boot(wait, before)
            self.acted = self.index_of("boot", before + 1)

    # --- faults

    def net(self, up):
        self.order(do="net", up=up)

    def broker(self, on):
        """Returns when the one that ran has gone; when another one has come, its log says."""
        self.order(do="broker", on=on)
        if not on:
            self.run("while killall mosquitto 2>/dev/null; do usleep 20000; done", check=False)

    def clock(self, **change):
        """step=SECONDS, set=SECONDS_SINCE_EPOCH or pace=SPEED; returns the router's time."""
        return self.order(do="clock", **change)["now"]

    def press(self, how):
        device_type = (self.state / "data/factory/device_type").read_text().strip()
        if device_type != DEVICE_WITH_BUTTON:
            raise RouterError(f"router {self.name} is of device type {device_type}, which has no reset button: "
                              f"boot one with --device-type {DEVICE_WITH_BUTTON}")
        code = {"short": 2, "failsafe": 3, "factory": 4}[how]
        self.run(f"echo {code} > /dev/reset_button_dev")

    def fault(self, service, *faults):
        """As router/virtual/services.py says; without any, the service is well again."""
        services.check_faults(service, faults)
        self.order(do="fault", service=service, faults=faults)

    # --- looking and doing

    def launcher_runs(self):
        try:
            connect_unix(self.state / "control").close()
            return True
        except OSError:
            return False

    def order(self, **request):
        try:
            connection = connect_unix(self.state / "control", timeout=20)
        except OSError as error:
            raise RouterError(f"router {self.name} is down") from error
        with connection, connection.makefile("rw") as lines:
            lines.write(json.dumps(request) + "\n")
            lines.flush()
            answer = json.loads(lines.readline() or "{}")
        if "error" in answer:
            raise RouterError(answer["error"])
        return answer

    def status(self):
        status = self.state.read("status.json")
        if status.get("state") not in (None, "down") and not self.launcher_lives():
            status["state"] = "down"
        return status

    def launcher_lives(self):
        return self.launcher.poll() is None if self.launcher else self.launcher_runs()

    def nsenter(self, cloud=False):
        """The command that runs what follows it inside, or on the cloud's side."""
        status = self.status()
        pid = status.get("launcher") if cloud else status.get("init")
        if not pid or status["state"] == "down":
            raise RouterError(f"router {self.name} is down")
        spaces = ["-n"] if cloud else ["-m", "-n", "-p", "-i", "-u", f"--root=/proc/{pid}/root",
                                      f"--wd=/proc/{pid}/root"]
        return ["nsenter", "-t", str(pid), "-U", "--preserve-credentials", *spaces, "--"]

    def inside(self, *command):
        path = "/usr/local/bin:/usr/bin:/bin:/usr/local/sbin:/usr/sbin:/sbin"
        return [*self.nsenter(), "/usr/bin/env", "-i", f"PATH={path}", "HOME=/root",
                f"TERM={os.environ.get('TERM', 'dumb')}", *command]

    def run(self, command, check=True, timeout=30, stdin=""):
        """A shell command inside; returns what it printed."""
        done = subprocess.run(self.inside("/bin/sh", "-c", command), capture_output=True, text=True,
                              timeout=timeout, check=False, input=stdin)
        if check and done.returncode != 0:
            raise RouterError(f"{command!r} inside: status {done.returncode}: {done.stderr}")
        return done.stdout

    def cloud_run(self, *command, timeout=30):
        """A command on the cloud's side."""
        return subprocess.run([*self.nsenter(cloud=True), *command], capture_output=True, text=True,
                              timeout=timeout, check=False)

    def live(self, path):
        """A path inside the router's memory or /var/data, as this side can open it."""
        status = self.status()
        data = "disk" if self.state.read("options.json").get("data_size") else "data"
        for inside, outside in (("/var/data", data), ("/var/volatile", "live/volatile"),
                                ("/run", "live/run"), ("/tmp", "live/tmp")):
            if path.startswith(inside + "/") or path == inside:
                rest = path[len(inside):]
                return Path(f"/proc/{status['launcher']}/root{self.state / outside}{rest}")
        raise ValueError(f"{path} is neither in memory nor in /var/data")

    def look(self):
        """Returns when the launcher has told and written down what has happened by now."""
        try:
            self.order(do="look")
        except (RouterError, OSError):
            pass    # it is down: all of it is there

    def read_log(self):
        """The system log of every boot so far, in bytes."""
        self.look()
        before = self.log_tail.replaced
        new = self.log_tail.lines()
        if self.log_tail.replaced != before:
            self.forget_what_was_read()
            new = self.log_tail.lines()
        self.log_read += b"".join(line + b"\n" for line in new)
        return self.log_read

    def log(self):
        """The system log of every boot so far."""
        return self.read_log().decode(errors="replace")

    def log_of_this_boot(self):
        """Of the latest boot, when it is over."""
        boots = self.events("boot")
        return self.read_log()[boots[-1]["log"]:].decode(errors="replace") if boots else ""

    def events(self, *kinds):
        """What happened so far, as router/virtual/events.py says; of those kinds, or of all."""
        self.look()
        return [event for event in self.stream.events() if not kinds or event["kind"] in kinds]

    def index_of(self, kind, boot):
        """How many events there were before the first of that kind in that boot."""
        return next(i for i, event in enumerate(self.events()) if event["kind"] == kind and event["boot"] == boot)

    def wait_for_event(self, kind, seconds=30, since=0, **facts):
        """The first event of that kind with those facts, the first `since` events of all left out."""
        def found():
            return next((event for event in self.events()[since:] if event["kind"] == kind and
                         all(event.get(name) == value for name, value in facts.items())), None)
        words = ", ".join([kind, *(f"{name} {value!r}" for name, value in facts.items())])
        return self.wait_until(found, seconds, f"the event {words}")

    def journal(self, *names):
        """What the services did, oldest first; of those named, or of all."""
        entries = services.read_journal(self.state / "outside")
        return [entry for entry in entries if not names or entry.service in names]

    def speed(self):
        return self.state.read("options.json").get("speed", 1)

    def patience(self, router_seconds):
        """Real seconds within which something that takes so many of the router's has happened."""
        return patience(router_seconds, self.speed())

    def wait_until(self, condition, seconds, what):
        """What condition() returns, as soon as that is true. It has to look at what a reboot does not wipe."""
        pause()
        events, lines = len(self.stream.events()), len(self.log_read)
        deadline = Deadline(seconds)
        while True:
            left = deadline.left()
            found = condition()
            if found:
                return found
            if not left:
                raise TimeoutError(f"waited {deadline.waited():.0f} s for {what}\n{self.meanwhile(events, lines)}")
            time.sleep(POLL)

    def meanwhile(self, events, lines):
        """What happened since then, as far as it goes on a screen."""
        seen = [told(event) for event in self.events()[events:]][-LAST_EVENTS:]
        logged = self.read_log()[lines:].decode(errors="replace").splitlines()[-LAST_LINES:]
        return "\n".join(["meanwhile these events:", *(f"  {line}" for line in seen or ["none"]),
                          f"and in the log ({self.state / 'log/messages'}):",
                          *(f"  {line[:200]}" for line in logged or ["nothing"])])
