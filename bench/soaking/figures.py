"""What is counted at each quiet point, the table and the picture of it, and which line climbs."""
import csv
import re
import shutil
import statistics
import subprocess
import threading
from pathlib import Path

from bench.soaking.soak import JOBS

COLUMNS = ("day", "boot", "agent", "pss", "dirty", "descriptors", "active", "archive", "marks", "tmp", "run", "writes",
           "jobs")
FOLDERS = {"active": f"{JOBS}/active", "archive": f"{JOBS}/archive", "marks": "/var/volatile/orv", "tmp": "/tmp",
           "run": "/run"}
SETTLED = 3             # samples of a life in which the agent has yet to do everything once
ENOUGH = 12             # of one life, to say that it climbs
TOLERANCE = 1.10
FIRST_DAY = 1.2         # until then nothing is old enough to be removed


class FlashWatch:
    """Counts the files that are written, made, renamed and removed below /var/data."""

    def __init__(self, router):
        folder = router.live("/var/data")
        self.count = 0
        self.process = subprocess.Popen(
            ["inotifywait", "-m", "-r", "-q", "-e", "close_write,create,moved_to,delete", "--format", "%e",
             str(folder)],
            stdout=subprocess.PIPE, text=True)
        self.thread = threading.Thread(target=self.read, daemon=True)
        self.thread.start()

    def read(self):
        for _ in self.process.stdout:
            self.count += 1

    def close(self):
        self.process.terminate()
        self.process.wait()


def sample(soak, began, watch):
    boot, pid = soak.life()
    told = soak.router.run(f"cat /proc/{pid}/smaps_rollup; ls /proc/{pid}/fd | wc -l")
    sizes = dict(re.findall(r"^(\w+): +(\d+) kB$", told, re.MULTILINE))
    row = {"day": round((soak.now() - began) / 86400, 4), "boot": boot, "agent": pid, "pss": int(sizes["Pss"]),
           "dirty": int(sizes["Private_Dirty"]), "descriptors": int(told.split()[-1]),
           "writes": watch.count, "jobs": soak.finished}
    return {**row, **{name: len(soak.names(folder)) for name, folder in FOLDERS.items()}}


def write_table(path, samples):
    with path.open("w", newline="") as file:
        table = csv.DictWriter(file, COLUMNS)
        table.writeheader()
        table.writerows(samples)


def climbing(samples):
    """Sentences on what grows: memory and descriptors within a life of the agent, files and writes over all."""
    lives = {}
    for row in samples:
        lives.setdefault((row["boot"], row["agent"]), []).append(row)
    for life, rows in lives.items():
        rows = rows[SETTLED:]
        if len(rows) < ENOUGH:
            continue
        for name in ("dirty", "descriptors"):
            early, late = ends(rows, name)
            if late > early * TOLERANCE:
                yield f"{name} of agent {life}: {early:g} early, {late:g} late"
    if len(samples) >= ENOUGH:
        aged = [row for row in samples if row["day"] >= FIRST_DAY]
        for name in ("active", "marks", "tmp", "run") if len(aged) >= ENOUGH else ():
            early, late = ends(aged, name)
            if late > early * TOLERANCE + 1:
                yield f"files in {FOLDERS[name]}: {early:g} early, {late:g} late"
        early, late = writes_of_a_job(samples[:len(samples) // 2]), writes_of_a_job(samples[len(samples) // 2:])
        if late > early * 1.5:
            yield f"changes below /var/data: {early:.1f} a job early, {late:.1f} late"


def ends(rows, name):
    """The medians of the first and of the last third."""
    third = max(1, len(rows) // 3)
    return [statistics.median(row[name] for row in part) for part in (rows[:third], rows[-third:])]


def writes_of_a_job(rows):
    return (rows[-1]["writes"] - rows[0]["writes"]) / max(1, rows[-1]["jobs"] - rows[0]["jobs"])


PLOTS = (("private dirty memory, KiB", "dirty"), ("descriptors", "descriptors"),
         ("files: waiting jobs", "active"), ("files: marks and scripts", "marks"), ("files: /tmp", "tmp"),
         ("files: archive", "archive"), ("changes below /var/data", "writes"))


def plot(table, picture):
    """By gnuplot, where it is installed."""
    if not shutil.which("gnuplot"):
        return f"no picture: gnuplot is not installed (Debian: gnuplot-nox); the figures are in {table}"
    lines = [f"set terminal svg size 900,{160 * len(PLOTS)} background 'white'", f"set output '{picture}'",
             "set datafile separator ','", "set key off", "set grid", f"set multiplot layout {len(PLOTS)},1",
             "set yrange [0:*]"]
    for title, name in PLOTS:
        lines += [f"set title '{title}'",
                  f"plot '{table}' every ::1 using {COLUMNS.index('day') + 1}:{COLUMNS.index(name) + 1} with lines"]
    subprocess.run(["gnuplot"], input="\n".join(lines) + "\nunset multiplot\n", text=True, check=True)
    return f"picture: {Path(picture)}"
