#!/usr/bin/python3
"""Measurements of the real agent in a virtual router: measure.py WHAT [--jobs N] [--seconds N]."""
import argparse
import os
import random
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from collections import Counter
from pathlib import Path

TREE = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(TREE))

from cloud.service import IGNORE, Service, socket_of  # noqa: E402
from router.virtual import image  # noqa: E402
from router.virtual.client import Router  # noqa: E402

BUILD = TREE / "build/release"


class Bench:
    """A router of its own, with the cloud's side connected to it."""

    LAST_TOPIC = "tessard 0 v1/devices/me/attributes"

    def __init__(self, **options):
        self.folder = tempfile.mkdtemp(prefix="tessard-bench-", dir=TREE / "build")
        self.router = Router("bench", self.folder)
        self.prepare()
        self.router.up(build=BUILD, **options)
        self.cloud = Service(socket_of(self.router)).__enter__()
        self.subscribed()

    def prepare(self):
        """Before the first boot."""

    def subscribed(self):
        """Until the agent of this boot hears what is sent."""
        self.router.wait_until(lambda: self.LAST_TOPIC in self.router.log_of_this_boot()
                               and self.cloud.link.is_connected(), 30, "the agent's subscriptions")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.cloud.__exit__()
        self.router.down()
        shutil.rmtree(self.folder, ignore_errors=True)

    def pid(self):
        """The agent's, or that of what runs in its place."""
        return self.router.run("cat /run/agent").strip()


class InPlaceBench(Bench):
    """A router that runs a program of the build tree in the agent's place: with the router's libraries, or alone,
    with copies of its own of itself, of the loader and of every library, so that it maps no file that any other
    process maps."""

    FOLDER = "/usr/lib/in-place"
    LOADER = "own-loader"

    def __init__(self, program, last_topic, alone):
        self.program = program
        self.LAST_TOPIC = last_topic
        self.alone = alone
        super().__init__()

    def prepare(self):
        self.router.state.make()
        slot = self.router.state / "slots/1"
        shutil.copytree(image.ensure(BUILD, "1.0.0"), slot, symlinks=True)
        folder = slot / self.FOLDER.lstrip("/")
        folder.mkdir()
        shutil.copy(self.program, folder)
        command = f"{self.FOLDER}/{self.program.name}"
        if self.alone:
            for inside, outside in image.libraries(self.program).items():
                is_loader = Path(inside).name.startswith("ld-linux")
                shutil.copy(outside, folder / (self.LOADER if is_loader else Path(inside).name))
            command = f"{self.FOLDER}/{self.LOADER} --library-path {self.FOLDER} {command}"
        (slot / "usr/bin/tessard").write_text(f"#!/bin/sh\nexec {command}\n")


def row(name, values, unit="s"):
    print(f"{name:44} min {min(values):8.3f}  median {statistics.median(values):8.3f}"
          f"  max {max(values):8.3f} {unit}")


# --- idle: memory and CPU, and those of a bare program

SETTLED_S = 20
SAMPLES = 9


def memory_now(router, pid):
    lines = router.run(f"cat /proc/{pid}/smaps_rollup").splitlines()
    sizes = {line.split(":")[0]: int(line.split()[1]) for line in lines[1:]}
    return sizes["Pss"], sizes["Private_Dirty"]


def memory(router, pid):
    """The medians of several samples: a child just forked shares all pages for a moment."""
    samples = []
    for _ in range(SAMPLES):
        samples.append(memory_now(router, pid))
        time.sleep(0.3)
    return [int(statistics.median(column)) for column in zip(*samples)]


class CpuAccount:
    """The processor time of a process and of all its children from now on, by a control group: the clock ticks in
    /proc are too coarse for a process that sleeps."""

    ROOT = Path("/sys/fs/cgroup/cpuacct")

    def __init__(self, host_pid):
        self.group = self.ROOT / f"tessard-bench-{host_pid}"
        self.group.mkdir(exist_ok=True)
        (self.group / "cgroup.procs").write_text(str(host_pid))
        (self.group / "cpuacct.usage").write_text("0")

    def seconds(self):
        return int((self.group / "cpuacct.usage").read_text()) / 1e9

    def close(self):
        for pid in (self.group / "cgroup.procs").read_text().split():
            (self.ROOT / "cgroup.procs").write_text(pid)
        self.group.rmdir()


def host_pid(router, pid):
    """The number by which this machine knows the router's process."""
    inside = link(Path(f"/proc/{router.status()['init']}/ns/pid"))
    for process in Path("/proc").iterdir():
        if process.name.isdigit() and link(process / "ns/pid") == inside:
            numbers = next(line for line in (process / "status").read_text().splitlines() if line.startswith("NSpid:"))
            if numbers.split()[-1] == pid:
                return process.name
    raise RuntimeError(f"no process {pid} in the router")


def link(path):
    try:
        return os.readlink(path)
    except OSError:
        return ""


def mapped_files(process):
    """Those that a process maps, as device and number."""
    try:
        lines = (process / "maps").read_text().splitlines()
    except OSError:
        return set()
    return {tuple(line.split()[3:5]) for line in lines if line.split()[4] != "0"}


def beside(pid):
    """The programs of this machine that map a file which this one maps too."""
    own = mapped_files(Path("/proc") / pid)
    others = [p for p in Path("/proc").iterdir() if p.name.isdigit() and p.name != pid and mapped_files(p) & own]
    names = Counter(os.path.basename(link(p / "exe")) for p in others)
    return ", ".join(f"{count} {name}" for name, count in sorted(names.items())) or "nobody"


def only_for_curl(program):
    """The names of the libraries that the program would not load without libcurl."""
    needs = {Path(inside).name: outside for inside, outside in image.libraries(program).items()}
    dynamic = subprocess.run(["readelf", "-d", program], capture_output=True, text=True, check=True).stdout
    kept = set(re.findall(r"NEEDED.*\[(.+)\]", dynamic)) - {"libcurl.so.4"}
    for name in list(kept):
        kept |= {Path(inside).name for inside in image.libraries(needs[name])}
    return set(needs) - kept


def memory_of_libraries(router, pid, names):
    """What the pages of these libraries count in the process's PSS, in KiB."""
    total, counts = 0, False
    for line in router.run(f"cat /proc/{pid}/smaps").splitlines():
        words = line.split()
        if not words[0].endswith(":"):
            counts = len(words) > 5 and Path(words[5]).name in names
        elif counts and words[0] == "Pss:":
            total += int(words[1])
    return total


def measure_idle(bench, name, seconds):
    """Tells its processor time over so many seconds, and its memory after them. Returns the former, a minute."""
    time.sleep(SETTLED_S)
    pid = bench.pid()
    pid_here = host_pid(bench.router, pid)
    account = CpuAccount(pid_here)
    time.sleep(seconds)
    used = account.seconds() * 60 / seconds
    account.close()
    pss, dirty = memory(bench.router, pid)
    curl = memory_of_libraries(bench.router, pid, only_for_curl(bench.program))
    print(f"{name:20} PSS {pss:6} KiB, {curl:5} of it files for libcurl alone;"
          f"  private dirty {dirty:6} KiB;  CPU {used * 1000:6.1f} ms a minute;"
          f" {SETTLED_S + seconds} s after its start, beside {beside(pid_here)}")
    return used


def idle(arguments):
    """One after the other, each in a router of its own: first alone, then beside the router's other programs."""
    programs = {"agent": (BUILD / "tessard", Bench.LAST_TOPIC),
                "bare program": (BUILD / "bench/bare_agent", "bare 0 v1/device/cmd/config/abort/apply")}
    for alone in (True, False):
        used = []
        for name, program in programs.items():
            with InPlaceBench(*program, alone) as bench:
                used.append(measure_idle(bench, f"{name}, alone" if alone else name, arguments.seconds))
        print(f"CPU ratio {used[0] / used[1]:.2f}")


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
                sizes.append(memory(bench.router, bench.pid())[1])
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
    """Counts the renames into the job folders by a watch on the folders, for the first job after a start and for
    one that comes when the interval of a repeat is over."""
    with Bench() as bench:
        router = bench.router
        active = router.state / "data/orv/vantrel_iot/jobs/active"
        for number in (1, 2):
            events = renames_of_a_job(bench, f"flash-{number}", active, number)
            print(f"job {number}: reported {', '.join(bench.cloud.statuses(f'flash-{number}'))}; its file replaced"
                  f" {events.count('MOVED_TO')} times, moved away {events.count('MOVED_FROM')} times")
            time.sleep(25)
        data = router.state / "data"
        before = newest_change(data)
        time.sleep(arguments.seconds)
        quiet = newest_change(data) == before
        print(f"idle for {arguments.seconds} s: /var/data {'unchanged' if quiet else 'CHANGED'}")


def renames_of_a_job(bench, job, folder, checkins):
    watched = watch_renames(folder)
    try:
        bench.cloud.send_script(job, "echo one line")
        bench.cloud.wait_for_status(job, "success", 60)
        bench.cloud.wait(lambda c: sum(m.topic.endswith("checkin/apply") for m in c.messages) == checkins, 60,
                         "the check-in")
    finally:
        events = watched()
    return events


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
    top.add_argument("--seconds", type=int, default=60)
    top.add_argument("--jobs", type=int, default=20)
    top.add_argument("--speed", type=float, default=20)
    arguments = top.parse_args()
    MEASUREMENTS[arguments.what](arguments)


main()
