"""The launcher: what stands around one router while it has power.

It runs in namespaces of its own (user, mount, network): its network is the cloud's side, its mounts
hold the memory that a boot loses. It boots the router, sees why a boot ended, boots again or waits,
and takes orders on the socket `control`, one JSON object a line, answered with one. It writes the
router's system log and tells in `events` what happens.
"""
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
from router.virtual.control import Control
from router.virtual.events import EventStream, InsideEvents
from router.virtual.sandbox import Sandbox
from router.virtual.state import StateFolder
from router.virtual.system_log import SystemLog
from router.virtual.waiting import Deadline
from router.virtual.watch import Watch

MEMORY = "64m"
SCRATCH = "16m"     # /tmp: a script that floods its output must not take the room of scripts and marks
POLL = 0.02     # where this machine has no watch left for us


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
        self.trial = None       # how long a slot on trial has to prove itself
        self.events = EventStream(self.state / "events", self.clock.now if self.clock else time.time)
        self.inside = InsideEvents(self.events, self.state / "outside/journal")
        self.log = SystemLog(self.state / "outside/log.sock", self.state / "log/messages",
                             self.state / "live/volatile/log/messages")
        self.watch = make_watch(self.state / "outside")

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
        mount_tmpfs(self.state / "live/tmp", SCRATCH, mode="1777")

    def lose_memory(self):
        """What the boot still owed, it told before: every process of it is dead."""
        self.log.take()
        self.inside.boot_ended()
        subprocess.run(["umount", "-l", str(self.state / "live")], check=True)

    def boot(self):
        self.boots += 1
        self.cause = None
        self.slot, remark = self.loader.choose()
        self.events.boot = self.boots
        self.events.tell("boot", slot=self.slot, log=self.log.length())
        if remark:
            services.note(self.state / "outside", "boot-loader", remark)
            self.events.tell("slot", slot=self.slot, text=remark)
        self.trial = None
        if self.loader.on_trial():
            self.trial = Deadline(trial_seconds(self.clock.speed if self.clock else 1))
        (self.state / "etc/cmdline").write_text(f"console=ttyS0 root=/dev/slot{self.slot} ro quiet\n")
        self.make_memory()
        self.inside.boot_begins(self.state / "live/run/config-apply.events")
        if self.watch:
            self.watch.add(self.state / "live/run")
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
        if not self.sandbox:    # an order of the same moment has ended it
            return
        self.selector.unregister(self.sandbox.ended())
        ended = self.sandbox.wait()
        self.last_end = self.cause or ended
        self.sandbox = None
        os.close(self.image_hold)
        self.lose_memory()
        self.events.tell("end", slot=self.slot, why=self.last_end)
        gives_up = ended.startswith("init crashed") and not self.loader.on_trial()
        if gives_up or ended.startswith("halt"):
            self.wanted = "off" if self.wanted == "on" else self.wanted
        self.move_to("off")

    def look_inside(self):
        """Tells and writes down all that has happened inside by now."""
        if self.phase == "booting" and (self.state / "live/run/booted").exists():
            self.move_to("up")
            self.events.tell("up", slot=self.slot)
        self.start_clock()
        self.log.take()
        self.inside.look()

    def start_clock(self):
        """Sets the clock by the moment from which the inside counts, which it has told and waits for."""
        told = self.state / "live/run/clock-starts"
        answer = self.state / "live/run/clock-set"
        if self.clock and self.sandbox and told.exists() and not answer.exists():
            self.clock.start(told.stat().st_mtime)
            answer.touch()

    def check_trial(self):
        """The watchdog of a slot on trial: ends a boot in which the agent does not stay alive."""
        if not self.trial or self.trial.left():
            return
        self.trial = None
        if self.sandbox and self.loader.on_trial():
            self.end_boot("watchdog")

    def end_boot(self, cause):
        self.cause = cause
        os.kill(self.sandbox.init_pid, signal.SIGKILL)
        self.boot_ended()

    # --- orders

    def switch_power(self, wanted):
        """Wanted: "on", "off", or "gone" for good; what ran loses its memory."""
        self.wanted = wanted
        if self.sandbox:
            self.end_boot("power cut" if wanted != "gone" else "switched off")

    def order(self, request):
        """What happened before stands in the stream before what is asked for."""
        self.look_inside()
        orders = {"look": lambda _: None, "on": self.order_on, "down": self.order_down,
                  "power-cut": self.order_power_cut, "net": self.order_net, "broker": self.order_broker,
                  "fault": self.order_fault, "clock": self.order_clock}
        name = request["do"]
        if name not in orders:
            return {"error": f"unknown order {name}"}
        return orders[name](request) or {"boots": self.boots}

    def order_on(self, _):
        if self.wanted != "on":
            self.events.tell("power", on=True)
        self.wanted = "on"

    def order_down(self, _):
        self.events.tell("power", on=False)
        self.switch_power("gone")

    def order_power_cut(self, request):
        self.events.tell("power", on=False)
        self.switch_power("off")
        if not request.get("off"):
            self.order_on(request)

    def order_net(self, request):
        switch = self.state / "outside/net.off"
        switch.unlink(missing_ok=True) if request["up"] else switch.touch()
        network.set_link(request["up"])
        self.events.tell("wire", up=request["up"])

    def order_broker(self, request):
        """Only the switch: whoever gives the order ends the broker that runs."""
        switch = self.state / "outside/broker.off"
        switch.unlink(missing_ok=True) if request["on"] else switch.touch()
        self.events.tell("broker", on=request["on"])

    def order_fault(self, request):
        services.set_faults(self.state / "outside", request["service"], request["faults"])
        self.events.tell("fault", service=request["service"], faults=request["faults"])

    def order_clock(self, request):
        if not self.clock:
            return {"error": "this router has the machine's clock: boot it with --clock or --speed"}
        before = self.clock.stepped
        if "step" in request:
            self.clock.step(request["step"])
        if "set" in request:
            self.clock.set(request["set"])
        if "pace" in request:
            self.clock.pace(request["pace"])
            self.events.tell("clock", pace=request["pace"])
        if self.clock.stepped != before:
            self.events.tell("clock", step=round(self.clock.stepped - before, 3))
        return {"now": self.clock.now()}

    # --- the life of the launcher

    def run(self):
        control = Control(self.state / "control", self.selector, self.order)
        self.selector.register(self.log, selectors.EVENT_READ, self.log.take)
        if self.watch:
            self.selector.register(self.watch, selectors.EVENT_READ, self.watch.drain)
        for number in (signal.SIGTERM, signal.SIGINT):
            signal.signal(number, lambda *_: sys.exit(0))
        network.make_cloud_side()
        self.events.tell("power", on=True)
        try:
            self.serve()
        finally:
            self.switch_power("gone")
            control.close()
            self.save_disk()
            self.move_to("down")

    def serve(self):
        while self.wanted != "gone":
            if self.wanted == "on" and not self.sandbox:
                self.boot()
            for key, _ in self.selector.select(self.patience()):
                key.data()
            self.look_inside()
            self.check_trial()

    def patience(self):
        if not self.watch:
            return POLL
        return self.trial.left() if self.trial else None


def mount_tmpfs(folder, size, mode="755"):
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size},mode={mode}", "memory", str(folder)], check=True)


def make_watch(folder):
    """None where this user may have no more of these."""
    try:
        watch = Watch()
        watch.add(folder)
        return watch
    except OSError:
        return None


if __name__ == "__main__":
    Launcher(sys.argv[1]).run()
