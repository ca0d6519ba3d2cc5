"""The command line of the virtual router."""
import argparse
import json
import os
import signal
import subprocess
import sys
import time
from pathlib import Path

from router.virtual.client import NoNamespaces, Router, RouterError
from router.virtual.log_filter import LogFilter, time_of
from router.virtual.services import FAULTY
from router.virtual.state import DEFAULT_ROOT
from router.virtual.system_log import LEVELS
from router.virtual.tail import Tail

SKIP = 77


class Command(argparse.ArgumentParser):
    """One verb: which router is meant may be said behind it too."""

    def __init__(self, **options):
        super().__init__(**options)
        add_which(self, argparse.SUPPRESS, argparse.SUPPRESS)


def add_which(parser_of_it, name, root):
    parser_of_it.add_argument("--name", default=name, help="which one, of several side by side (router)")
    parser_of_it.add_argument("--root", default=root, help="folder of the state folders")


def parser():
    top = argparse.ArgumentParser(prog="vrouter", description="A router in namespaces of this machine.")
    add_which(top, "router", DEFAULT_ROOT)
    commands = top.add_subparsers(dest="command", required=True, parser_class=Command)
    add_power(commands)
    add_faults(commands)
    commands.add_parser("shell", help="a shell inside")
    log = commands.add_parser("log", help="the system log, all boots")
    log.add_argument("-f", "--follow", action="store_true")
    log.add_argument("--job", metavar="ID", help="only lines that name this job")
    log.add_argument("--level", choices=LEVELS, metavar="LEVEL", help="this priority and those more urgent: "
                     + ", ".join(LEVELS))
    log.add_argument("--since", metavar="TIME", help="90s, 5m or 2h ago, or 14:05, 14:05:09, '2026-11-22 14:05:09'")
    events = commands.add_parser("events", help="what happened to it, all boots, one JSON object a line")
    events.add_argument("-f", "--follow", action="store_true")
    commands.add_parser("journal", help="what its services did, all boots")
    status = commands.add_parser("status", help="what it is doing")
    status.add_argument("--json", action="store_true")
    for name, text in (("exec", "run a command inside"), ("cloud-exec", "run a command on the cloud's side")):
        commands.add_parser(name, help=text).add_argument("words", nargs=argparse.REMAINDER)
    return top


def add_power(commands):
    up = commands.add_parser("up", help="boot it")
    up.add_argument("--build", help="build tree to take the programs from (build/release)")
    up.add_argument("--version", default="1.0.0", help="firmware version of the image")
    up.add_argument("--speed", type=float, default=1, help="how many times faster the agent's clock goes")
    up.add_argument("--clock", action="store_true", help="a clock of its own that can be stepped")
    up.add_argument("--clock-at", type=float, metavar="SECONDS", help="that clock begins so long after 1970")
    up.add_argument("--no-broker", dest="broker", action="store_false", help="boot with the broker stopped")
    up.add_argument("--device-type", type=int, help="1, 2 and 5 take upgrades, 5 has the button (5)")
    up.add_argument("--flash", action="store_true", help="both slots anew from the build tree, boot the first")
    up.add_argument("--data-size", help="limit of /var/data, as in 4m")
    commands.add_parser("down", help="switch it off and take it away; /var/data stays")
    commands.add_parser("reboot", help="/sbin/reboot -f inside, and wait for the next boot")
    cut = commands.add_parser("power-cut", help="everything inside ends at once; then it boots again")
    cut.add_argument("--off", action="store_true", help="leave it without power until `up`")


def add_faults(commands):
    commands.add_parser("press", help="the reset button").add_argument(
        "how", choices=("short", "failsafe", "factory"))
    commands.add_parser("trust", help="add a certificate authority to its store").add_argument(
        "certificate", type=Path)
    commands.add_parser("net", help="the wire to the cloud's side").add_argument(
        "to", choices=("up", "down"))
    commands.add_parser("broker", help="the router's MQTT broker").add_argument(
        "to", choices=("start", "stop"))
    fault = commands.add_parser("fault", help="make a service slow or fail; without words, well again")
    fault.add_argument("service", choices=FAULTY, metavar="SERVICE", help=", ".join(FAULTY))
    fault.add_argument("words", nargs="*", metavar="WORD",
                       help="slow SECONDS, held REASON, fail STATUS, or a word of its own")
    clock = commands.add_parser("clock", help="step, set or speed up the agent's clock")
    clock.add_argument("change", nargs="?", help="+SECONDS, -SECONDS, @SECONDS_SINCE_EPOCH or xSPEED")


def show_status(router, as_json):
    status = router.status() or {"state": "down"}
    if as_json:
        print(json.dumps(status))
        return
    since = f" for {time.time() - status['since']:.0f} s" if "since" in status else ""
    print(f"{router.name}: {status['state']}{since}")
    if status.get("boots"):
        print(f"  boot {status['boots']}, slot {status['slot']}, last end: {status['last_end'] or 'none'}")
        print(f"  state folder {router.state.folder}")


def show_lines(router, path, follow, wanted=lambda line: True):
    tail = Tail(router.state / path)
    while True:
        router.look()
        for line in tail.lines():
            if wanted(line.decode(errors="replace")):
                sys.stdout.buffer.write(line + b"\n")
        sys.stdout.flush()
        if not follow:
            return
        time.sleep(0.1)


def show_log(router, arguments):
    since = time_of(arguments.since, time.time()) if arguments.since else None
    chosen = LogFilter(arguments.job, arguments.level, since)
    show_lines(router, "log/messages", arguments.follow, lambda line: chosen.wants(line, time.time()))


def show_journal(router):
    for entry in router.journal():
        print(time.strftime("%b %d %H:%M:%S", time.localtime(entry.at)), entry)


def set_fault(router, service, words):
    if len(words) % 2:
        raise ValueError(f"each word of a fault has a value: {' '.join(words)}")
    faults = [f"{word} {value}" for word, value in zip(words[::2], words[1::2], strict=True)]
    router.fault(service, *faults)


def change_clock(router, change):
    if change is None:
        now = router.clock()
    elif change.startswith("@"):
        now = router.clock(set=float(change[1:]))
    elif change.startswith("x"):
        now = router.clock(pace=float(change[1:]))
    else:
        now = router.clock(step=float(change))
    print(time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(now)))


def replace_by(command, words):
    words = words[1:] if words[:1] == ["--"] else words
    if not words:
        raise RouterError("no command given")
    return subprocess.run([*command, *words], check=False).returncode


# What runs the rest of the command line in a process namespace of its own, which ends with it: the first kills it
# when we are killed, the shell is that namespace's init and so lets signals reach the command.
WITH_ITS_CHILDREN = ["setpriv", "--pdeathsig", "KILL", "unshare", "--pid", "--fork", "--kill-child", "--",
                     "/bin/sh", "-c", '"$@"; exit $?', "sh"]


def run_on_cloud_side(router, words):
    """Whatever the command has started ends with it, and with us."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    words = words[1:] if words[:1] == ["--"] else words
    if not words:
        raise RouterError("no command given")
    process = subprocess.Popen([*router.nsenter(cloud=True), *WITH_ITS_CHILDREN, *words])
    try:
        return process.wait()
    finally:
        process.kill()


def which_first(words):
    """--name and --root that stand right behind a verb which takes a command line, put before it: what stands
    further behind is that command's own."""
    front, rest = [], list(words)

    def take():
        while rest and rest[0].split("=")[0] in ("--name", "--root"):
            front.extend(rest[:1 if "=" in rest[0] else 2])
            del rest[:1 if "=" in rest[0] else 2]
    take()
    verb = rest[:1]
    if verb not in (["exec"], ["cloud-exec"]):
        return words
    del rest[:1]
    take()
    return front + verb + rest


def up(router, arguments):
    began = time.monotonic()
    router.up(build=arguments.build, version=arguments.version, speed=arguments.speed,
              clock=arguments.clock, clock_at=arguments.clock_at, broker=arguments.broker,
              device_type=arguments.device_type, data_size=arguments.data_size, flash=arguments.flash)
    print(f"{router.name} is up after {time.monotonic() - began:.2f} s")


def run(router, arguments):
    name = arguments.command
    if name == "exec":
        return replace_by(router.inside(), arguments.words)
    if name == "cloud-exec":
        return run_on_cloud_side(router, arguments.words)
    if name == "shell":
        return replace_by(router.inside(), ["/bin/sh", "-l"])
    actions = {
        "up": lambda: up(router, arguments),
        "down": router.down,
        "reboot": router.reboot,
        "power-cut": lambda: router.power_cut(off=arguments.off),
        "log": lambda: show_log(router, arguments),
        "events": lambda: show_lines(router, "events", arguments.follow),
        "status": lambda: show_status(router, arguments.json),
        "journal": lambda: show_journal(router),
        "fault": lambda: set_fault(router, arguments.service, arguments.words),
        "trust": lambda: router.trust(arguments.certificate),
        "press": lambda: router.press(arguments.how),
        "net": lambda: router.net(arguments.to == "up"),
        "broker": lambda: router.broker(arguments.to == "start"),
        "clock": lambda: change_clock(router, arguments.change),
    }
    actions[name]()
    return 0


def main():
    arguments = parser().parse_args(which_first(sys.argv[1:]))
    router = Router(arguments.name, arguments.root)
    try:
        return run(router, arguments)
    except NoNamespaces as error:
        print(f"vrouter: {error}", file=sys.stderr)
        return SKIP
    except (RouterError, TimeoutError, FileNotFoundError, ValueError) as error:
        print(f"vrouter: {error}", file=sys.stderr)
        return 1
    except (KeyboardInterrupt, BrokenPipeError):
        os._exit(130)
