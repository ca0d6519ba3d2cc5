"""The command line of the virtual router."""
import argparse
import json
import os
import subprocess
import sys
import time
from pathlib import Path

from router.virtual.client import NoNamespaces, Router, RouterError
from router.virtual.services import FAULTY
from router.virtual.state import DEFAULT_ROOT

SKIP = 77


def parser():
    top = argparse.ArgumentParser(prog="vrouter", description="A router in namespaces of this machine.")
    top.add_argument("--name", default="router", help="which one, of several side by side")
    top.add_argument("--root", default=DEFAULT_ROOT, help="folder of the state folders")
    commands = top.add_subparsers(dest="command", required=True)
    add_power(commands)
    add_faults(commands)
    commands.add_parser("shell", help="a shell inside")
    log = commands.add_parser("log", help="the system log, all boots")
    log.add_argument("-f", "--follow", action="store_true")
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
    fault.add_argument("words", nargs="*", metavar="WORD", help="slow SECONDS | fail STATUS")
    clock = commands.add_parser("clock", help="step or set the agent's clock")
    clock.add_argument("change", nargs="?", help="+SECONDS, -SECONDS or @SECONDS_SINCE_EPOCH")


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


def follow_log(router):
    shown = 0
    while True:
        text = router.log()
        sys.stdout.write(text[shown:])
        sys.stdout.flush()
        shown = len(text)
        time.sleep(0.2)


def show_journal(router):
    for entry in router.journal():
        print(time.strftime("%b %d %H:%M:%S", time.localtime(entry.at)), entry)


def set_fault(router, service, words):
    faults = [f"{word} {value}" for word, value in zip(words[::2], words[1::2], strict=True)]
    router.fault(service, *faults)


def change_clock(router, change):
    if change is None:
        now = router.clock()
    elif change.startswith("@"):
        now = router.clock(set=float(change[1:]))
    else:
        now = router.clock(step=float(change))
    print(time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(now)))


def replace_by(command, words):
    words = words[1:] if words[:1] == ["--"] else words
    if not words:
        raise RouterError("no command given")
    return subprocess.run([*command, *words], check=False).returncode


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
        return replace_by(router.nsenter(cloud=True), arguments.words)
    if name == "shell":
        return replace_by(router.inside(), ["/bin/sh", "-l"])
    actions = {
        "up": lambda: up(router, arguments),
        "down": router.down,
        "reboot": router.reboot,
        "power-cut": lambda: router.power_cut(off=arguments.off),
        "log": lambda: follow_log(router) if arguments.follow else print(router.log(), end=""),
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
    arguments = parser().parse_args()
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
