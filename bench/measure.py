#!/usr/bin/python3
"""Measurements of the real agent in a virtual router: measure.py WHAT [--jobs N] [--seconds N]."""
import argparse
import os
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

TREE = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(TREE))

from cloud.service import IGNORE, Service, socket_of  # noqa: E402
from router.virtual.client import Router  # noqa: E402

BUILD = TREE / "build/release"


class Bench:
    """A router of its own, with the cloud's side connected to it."""

    def __init__(self, **options):
        self.folder = tempfile.mkdtemp(prefix="tessard-bench-", dir=TREE / "build")
        self.router = Router("bench", self.folder)
        self.router.up(build=BUILD, **options)
        self.cloud = Service(socket_of(self.router)).__enter__()
        self.subscribed()

    def subscribed(self):
        """Until the agent of this boot hears what is sent."""
        self.router.wait_until(lambda: "tessard 0 v1/devices/me/attributes" in self.router.log_of_this_boot()
                               and self.cloud.link.is_connected(), 30, "the agent's subscriptions")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.cloud.__exit__()
        self.router.down()
        shutil.rmtree(self.folder, ignore_errors=True)

    def pid(self, program):
        return self.router.run(f"pidof {program}").split()[0]


def row(name, values, unit="s"):
    print(f"{name:44} min {min(values):8.3f}  median {statistics.median(values):8.3f}"
          f"  max {max(values):8.3f} {unit}")


# --- idle: memory and CPU beside a bare program

def memory(router, pid):
    lines = router.run(f"cat /proc/{pid}/smaps_rollup").splitlines()
    sizes = {line.split(":")[0]: int(line.split()[1]) for line in lines[1:]}
    return sizes["Pss"], sizes["Private_Dirty"]


class CpuAccount:
    """The processor time of a process and of all its children from now on, by a control group: the clock ticks in
    /proc are too coarse for a process that sleeps."""

    ROOT = Path("/sys/fs/cgroup/cpuacct")

    def __init__(self, router, name):
        self.group = self.ROOT / f"tessard-bench-{name}"
        self.group.mkdir(exist_ok=True)
        for pid in host_pids(router, name):
            (self.group / "cgroup.procs").write_text(str(pid))
        (self.group / "cpuacct.usage").write_text("0")

    def seconds(self):
        return int((self.group / "cpuacct.usage").read_text()) / 1e9

    def close(self):
        for pid in (self.group / "cgroup.procs").read_text().split():
            (self.ROOT / "cgroup.procs").write_text(pid)
        self.group.rmdir()


def host_pids(router, program):
    """The router's processes that run the program, as this machine numbers them."""
    inside = link(Path(f"/proc/{router.status()['init']}/ns/pid"))
    return [int(p.name) for p in Path("/proc").iterdir()
            if p.name.isdigit() and os.path.basename(link(p / "exe")) == program and link(p / "ns/pid") == inside]


def link(path):
    try:
        return os.readlink(path)
    except OSError:
        return ""


def idle(arguments):
    with Bench() as bench:
        router = bench.router
        shutil.copy(BUILD / "bench/bare_agent", router.state / "data/bare_agent")
        router.run("/var/data/bare_agent >/dev/null 2>&1 &")
        time.sleep(5)
        time.sleep(15)
        programs = ("tessard", "bare_agent")
        accounts = {name: CpuAccount(router, name) for name in programs}
        time.sleep(arguments.seconds)
        used = {name: account.seconds() for name, account in accounts.items()}
        for name in programs:
            accounts[name].close()
            pss, dirty = memory(router, bench.pid(name))
            print(f"{name:12} PSS {pss:6} KiB  private dirty {dirty:6} KiB  CPU "
                  f"{used[name] * 60 / arguments.seconds * 1000:6.1f} ms a minute")
        print(f"CPU ratio {used['tessard'] / used['bare_agent']:.2f}")


# --- latency: from the publish to the script's first line

def uptime():
    return float(Path("/proc/uptime").read_text().split()[0])


def one_latency(bench, number):
    cloud = bench.cloud
    time.sleep(random.uniform(0, 3))
    job = f"latency-{number}"
    sent = time.time()
    cloud.send_script(job, "cat /proc/uptime > /tmp/first-line")
    cloud.wait_for_status(job, "success", 60)
    first_line = time.time() - uptime() + float(bench.router.run("cat /tmp/first-line").split()[0])
    at = {report.status: report.at for report in reversed(cloud.reports(job))}
    cloud.wait(lambda c: any(m.topic.endswith("checkin/apply") and m.at > at["success"] for m in c.messages), 60,
               "the check-in")
    return {"until taken up": at.get("received", at["executed"]) - sent,
            "beyond the pauses": (first_line - at["executed"] - 2)
                                 + (at["executed"] - at["received"] - 2 if "received" in at else 0),
            "publish to first line": first_line - sent}


def latency(arguments):
    with Bench() as bench:
        rows = [one_latency(bench, number) for number in range(arguments.jobs)]
        print("required: up to 1 s until the main loop reads it, up to 3 s until a pass, 2 s after each report")
        for name in rows[0]:
            row(name, [r[name] for r in rows])


# --- interrupted: from the boot to the report of a script that the power cut

def interrupted(arguments):
    took = []
    with Bench() as bench:
        for number in range(arguments.jobs):
            job = f"interrupted-{number}"
            bench.subscribed()
            bench.cloud.send_script(job, "sleep 300")
            bench.router.wait_until(lambda: job in bench.router.run("ls /tmp"), 60, "the script to run")
            bench.router.power_cut()
            began = time.time()
            took.append(bench.cloud.wait_for_status(job, "failed", 60).at - began)
        print("required: 2 s from the start of the agent to its first pass")
        row("agent started to failed published", took)


# --- growth: memory after many jobs

def growth(arguments):
    with Bench(speed=arguments.speed) as bench:
        sizes = []
        for number in range(arguments.jobs):
            bench.cloud.send_script(f"growth-{number}", "echo one line")
            bench.cloud.wait_for_status(f"growth-{number}", "success", 60)
            if number in (9, arguments.jobs - 1):
                sizes.append(memory(bench.router, bench.pid("tessard"))[1])
        print(f"private dirty after 10 jobs {sizes[0]} KiB, after {arguments.jobs} {sizes[-1]} KiB")


# --- drain: reports that waited for the cloud

def drain(arguments):
    count = arguments.jobs
    with Bench(speed=arguments.speed) as bench:
        bench.cloud.default_rule = IGNORE
        folder = bench.router.state / "data/orv/vantrel_iot/jobs/active"
        for number in range(count):
            (folder / f"waiting-{number}").write_text(
                f'{{"jobId":"waiting-{number}","status":"success","ack":false,"ackId":{number + 1},"action":"CMD"}}')
        bench.cloud.default_rule = lambda service, report: service.answer(report)
        began = time.time()
        bench.cloud.wait(lambda c: len({r.job for r in c.reports()}) == count, 60 * count / arguments.speed + 60,
                         f"{count} reports")
        took = (time.time() - began) * arguments.speed
        print(f"{count} waiting reports drained in {took:.0f} s, {took / count:.1f} s each; required: 21 to 24 s each"
              " (20 s between repeats, seen by passes 3 s apart)")


# --- flash: what one script job writes

def flash(arguments):
    """Counts the renames into the job folders by a watch on the folders."""
    with Bench() as bench:
        router = bench.router
        active = router.state / "data/orv/vantrel_iot/jobs/active"
        watched = watch_renames(active)
        try:
            bench.cloud.send_script("flash-1", "echo one line")
            bench.cloud.wait_for_status("flash-1", "success", 60)
            bench.cloud.wait(lambda c: any(m.topic.endswith("checkin/apply") for m in c.messages), 60,
                             "the check-in")
        finally:
            events = watched()
        print(f"job file replaced {events.count('MOVED_TO')} times, moved away {events.count('MOVED_FROM')} times")
        data = router.state / "data"
        before = newest_change(data)
        time.sleep(arguments.seconds)
        quiet = newest_change(data) == before
        print(f"idle for {arguments.seconds} s: /var/data {'unchanged' if quiet else 'CHANGED'}")


def watch_renames(folder):
    """Watches until what it returns is called; that returns the events."""
    watcher = subprocess.Popen(["inotifywait", "-m", "-q", "-e", "moved_to,moved_from", "--format", "%e", str(folder)],
                               stdout=subprocess.PIPE, text=True)
    time.sleep(0.5)

    def stop():
        time.sleep(1)
        watcher.terminate()
        return watcher.communicate()[0].split()
    return stop


def newest_change(folder):
    return max(p.lstat().st_mtime_ns for p in folder.rglob("*"))


MEASUREMENTS = {f.__name__: f for f in (idle, latency, interrupted, growth, drain, flash)}


def main():
    top = argparse.ArgumentParser(description=__doc__)
    top.add_argument("what", choices=tuple(MEASUREMENTS))
    top.add_argument("--seconds", type=int, default=120)
    top.add_argument("--jobs", type=int, default=20)
    top.add_argument("--speed", type=float, default=20)
    arguments = top.parse_args()
    MEASUREMENTS[arguments.what](arguments)


main()
