"""The launcher: what stands around one router while it has power.

It runs in namespaces of its own (user, mount, network): its network is the cloud's side, its mounts
hold the memory that a boot loses. It boots the router, sees why a boot ended, boots again or waits,
and takes orders on the socket `control`, one JSON object a line, answered with one.
"""
import json
import os
import selectors
import shutil
import signal
import subprocess
import sys
import time

from router.virtual import image, network, services
from router.virtual.bootloader import BootLoader, slot_of, trial_seconds
from router.virtual.clock import Clock
from router.virtual.sandbox import Sandbox
from router.virtual.state import StateFolder, listen_unix

MEMORY = "64m"
POLL_BOOTED = 0.005


class Launcher:
    def __init__(self, folder):
        self.state = StateFolder(folder)
        self.options = self.state.read("options.json")
        self.selector = selectors.DefaultSelector()
        self.sandbox = None
        self.boots = 0
        self.phase = "off"
        self.last_end = ""
        self.cause = None       # what we did to end the boot, when it was us
        self.wanted = "on"      # "on", "off" or "gone"
        self.clock = self.make_clock()
        self.data = self.mount_disk()
        self.loader = BootLoader(self.data, self.state / "slots")
        self.slot = slot_of(self.data)
        self.trial_ends = None  # when a slot on trial must have proved itself

    def make_clock(self):
        """None where the agent has this machine's clock."""
        speed = self.options.get("speed", 1)
        first = self.options.get("clock_at")
        if speed == 1 and first is None and not self.options.get("clock"):
            return None
        return Clock(self.state / "outside/clock", speed, first)

    # --- what others see

    def publish(self):
        self.state.write("status.json", {
            "state": self.phase, "boots": self.boots, "launcher": os.getpid(),
            "init": self.sandbox.init_pid if self.sandbox else None,
            "slot": self.slot, "last_end": self.last_end, "since": time.time()})

    def move_to(self, phase):
        self.phase = phase
        self.publish()

    # --- one boot

    def mount_disk(self):
        """A /var/data of limited size lives in memory, as long as this launcher does."""
        size = self.options.get("data_size")
        if not size:
            return self.state / "data"
        disk = self.state / "disk"
        disk.mkdir(exist_ok=True)
        mount_tmpfs(disk, size)
        shutil.copytree(self.state / "data", disk, dirs_exist_ok=True)
        return disk

    def save_disk(self):
        if self.data != self.state / "data":
            shutil.rmtree(self.state / "data")
            shutil.copytree(self.data, self.state / "data")

    def make_memory(self):
        mount_tmpfs(self.state / "live", MEMORY)
        for name, mode in (("run", 0o755), ("tmp", 0o1777), ("volatile", 0o755)):
            path = self.state / "live" / name
            path.mkdir()
            path.chmod(mode)

    def lose_memory(self):
        """Keeps the log of the ended boot for the reader outside; all else is lost."""
        folder = self.state / "live/volatile/log"
        if folder.is_dir():
            with open(self.state / f"log/boot-{self.boots}", "wb") as kept:
                for name in log_files(folder):
                    kept.write(name.read_bytes())
        subprocess.run(["umount", "-l", str(self.state / "live")], check=True)

    def boot(self):
        self.boots += 1
        self.cause = None
        self.slot, remark = self.loader.choose()
        if remark:
            services.note(self.state / "outside", "boot-loader", remark)
        self.trial_ends = None
        if self.loader.on_trial():
            self.trial_ends = time.monotonic() + trial_seconds(self.options.get("speed", 1))
        (self.state / "etc/cmdline").write_text(f"console=ttyS0 root=/dev/slot{self.slot} ro quiet\n")
        self.make_memory()
        if self.clock:
            self.clock.start()
        root = os.path.realpath(self.state / "slots" / self.slot)
        self.image_hold = image.hold(root)
        with open(self.state / "log/console", "ab") as console:
            self.sandbox = Sandbox(self.state, root, self.data, console)
        network.plug_in(self.sandbox.init_pid)
        network.set_link(not (self.state / "outside/net.off").exists())
        self.selector.register(self.sandbox.ended(), selectors.EVENT_READ, self.boot_ended)
        self.sandbox.start()
        self.move_to("booting")

    def boot_ended(self):
        self.selector.unregister(self.sandbox.ended())
        ended = self.sandbox.wait()
        self.last_end = self.cause or ended
        self.sandbox = None
        os.close(self.image_hold)
        self.lose_memory()
        gives_up = ended.startswith("init crashed") and not self.loader.on_trial()
        if gives_up or ended.startswith("halt"):
            self.wanted = "off" if self.wanted == "on" else self.wanted
        self.move_to("off")

    def check_booted(self):
        if self.phase == "booting" and (self.state / "live/run/booted").exists():
            self.move_to("up")

    def check_trial(self):
        """The watchdog of a slot on trial: ends a boot in which the agent does not stay alive."""
        if not self.trial_ends or time.monotonic() < self.trial_ends:
            return
        self.trial_ends = None
        if self.sandbox and self.loader.on_trial():
            self.end_boot("watchdog")

    def end_boot(self, cause):
        self.cause = cause
        os.kill(self.sandbox.init_pid, signal.SIGKILL)
        self.boot_ended()

    # --- orders

    def cut_power(self, wanted):
        self.wanted = wanted
        if self.sandbox:
            self.end_boot("power cut" if wanted != "gone" else "switched off")

    def order(self, request):
        name = request["do"]
        if name == "on":
            self.wanted = "on"
        elif name == "down":
            self.cut_power("gone")
        elif name == "power-cut":
            self.cut_power("off" if request.get("off") else "on")
        elif name == "net":
            switch = self.state / "outside/net.off"
            switch.unlink(missing_ok=True) if request["up"] else switch.touch()
            network.set_link(request["up"])
        elif name == "clock":
            return self.order_clock(request)
        else:
            return {"error": f"unknown order {name}"}
        return {"boots": self.boots}

    def order_clock(self, request):
        if not self.clock:
            return {"error": "this router has the machine's clock: boot it with --clock or --speed"}
        if "step" in request:
            self.clock.step(request["step"])
        if "set" in request:
            self.clock.set(request["set"])
        return {"now": self.clock.now()}

    def accept(self, listener):
        connection, _ = listener.accept()
        with connection, connection.makefile("rw") as lines:
            line = lines.readline()
            if line:
                answer = self.order(json.loads(line))
                lines.write(json.dumps(answer) + "\n")

    # --- the life of the launcher

    def run(self):
        listener = listen_unix(self.state / "control")
        self.selector.register(listener, selectors.EVENT_READ, lambda: self.accept(listener))
        for number in (signal.SIGTERM, signal.SIGINT):
            signal.signal(number, lambda *_: sys.exit(0))
        network.make_cloud_side()
        try:
            self.serve()
        finally:
            self.cut_power("gone")
            (self.state / "control").unlink(missing_ok=True)
            self.save_disk()
            self.move_to("down")

    def serve(self):
        while self.wanted != "gone":
            if self.wanted == "on" and not self.sandbox:
                self.boot()
            for key, _ in self.selector.select(self.patience()):
                key.data()
            self.check_booted()
            self.check_trial()

    def patience(self):
        if self.phase == "booting":
            return POLL_BOOTED
        return max(0, self.trial_ends - time.monotonic()) if self.trial_ends else None


def mount_tmpfs(folder, size):
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size},mode=755", "memory", str(folder)], check=True)


def log_files(folder):
    """The rotated files of the system log, oldest first."""
    older = sorted(folder.glob("messages.*"), key=lambda p: -int(p.suffix[1:]))
    newest = folder / "messages"
    return [*older, newest] if newest.exists() else older


if __name__ == "__main__":
    Launcher(sys.argv[1]).run()
