"""One soak: errands and mishaps by a seed, and what is checked at each quiet point."""
import json
import random
import shutil
import time
from pathlib import Path

from bench.soaking.errands import ERRANDS, PORT, RUNS
from bench.soaking.mishaps import MISHAPS, RESTARTS, full_disk, nothing
from cloud.file_server import FileServer
from cloud.jobs import config_hash
from cloud.service import Service, socket_of
from cloud.upload_server import UploadServer
from router.virtual.client import Router
from router.virtual.firmware import build_image

RUNNING = "/var/volatile/config/config.running"
STORED = "/var/data/orv/config.json"
HASHES = {RUNNING: RUNNING + ".hash", STORED: "/var/data/orv/config.hash"}
JOBS = "/var/data/orv/vantrel_iot/jobs"
MARKS = ("/var/data/orv/config.new", "/var/data/orv/ACTIVE_JOB", "/var/data/orv/FAILSAFE_TIMER",
         "/var/data/orv/FIRMWARE_UPDATED", "/var/data/orv/LOCAL_FW_UPGRADE", "/var/data/orv/MIGRATE",
         "/var/data/orv/config.staged", "/var/volatile/config/config.new", "/var/volatile/orv/CONFIG_JOB_EXECUTING",
         "/var/volatile/orv/FW_JOB_EXECUTING", "/var/volatile/orv/FW_JOBID", "/run/CONFIG_MODIFIED")

BUSY_PACE = 20          # the router's seconds in one of this machine's, while something is under way
HOUR = 3600
DAY = 24 * HOUR
QUIET_WITHIN = 2 * HOUR     # of the router's time: a clock set back silences reports until it has caught up
RESEND_AFTER = 60           # what is sent while the agent is away is lost, and has to be sent again
DISK = "16m"


class Soak:
    def __init__(self, folder, build, seed, idle_pace):
        self.build = build
        self.random = random.Random(seed)
        self.idle_pace = idle_pace
        self.images = folder / "images"
        shutil.rmtree(folder / "soak", ignore_errors=True)
        self.router = Router("soak", folder)
        self.cloud = self.files = self.uploads = None
        self.number = 0
        self.finished = 0       # jobs that were archived
        self.sent = []          # (router's time, prefix of the jobs' names)
        self.broken = []

    # --- the players

    def __enter__(self):
        self.router.up(build=self.build, speed=BUSY_PACE, data_size=DISK)
        self.cloud = Service(socket_of(self.router)).__enter__()
        token = self.router.run("cat /var/data/factory/token").strip()
        self.files = FileServer(self.router, PORT, token).__enter__()
        self.uploads = UploadServer(self.router, 80).__enter__()
        self.router.wait_until(self.cloud.link.is_connected, 60, "the cloud to reach the broker")
        return self

    def __exit__(self, *_):
        for player in (self.uploads, self.files, self.cloud):
            if player:
                player.__exit__()
        self.router.down()

    def image(self, version, *faults):
        path = self.images / f"{'-'.join([version, *faults])}.img"
        return path if path.exists() else build_image(path, self.build, version, faults)

    # --- looking

    def now(self):
        return self.router.clock()

    def version(self):
        return self.router.run("sysdb get SYS_FW_VER").strip()

    def text(self, path):
        try:
            return self.router.live(path).read_text()
        except (OSError, KeyError):
            return ""

    def config(self):
        return json.loads(self.text(RUNNING))

    def life(self):
        """Which agent this is."""
        return self.router.status()["boots"], self.text("/run/agent").strip()

    def names(self, folder):
        try:
            return sorted(entry.name for entry in self.router.live(folder).iterdir())
        except (OSError, KeyError):
            return []

    def was_stored(self, job):
        return f"write new job file: {job}\n" in self.router.log()

    def count_runs(self, job):
        runs = self.router.state / "outside" / Path(RUNS).name
        return runs.read_text().split().count(job) if runs.exists() else 0

    # --- time

    def let_pass(self, seconds):
        time.sleep(seconds / BUSY_PACE)

    def idle(self, seconds):
        """At the other pace."""
        until = self.now() + seconds
        self.router.clock(pace=self.idle_pace)
        while self.now() < until:
            time.sleep(min(1, (until - self.now()) / self.idle_pace + 0.01))
        self.router.clock(pace=BUSY_PACE)

    def end_agent(self):
        pid = self.text("/run/agent").strip()
        self.router.run(f"kill -9 {pid}", check=False)

    def age(self):
        """What the device's timers remove after a day: they go by ages by this machine's clock."""
        while self.sent and self.sent[0][0] < self.now() - DAY:
            _, name = self.sent.pop(0)
            self.router.run(f"rm -f /tmp/cli_output_{name}[.-]* /var/volatile/orv/{name}[_-]*", check=False)

    # --- one episode

    def episode(self):
        """An errand, perhaps a mishap, and what must hold when all is quiet again. Returns what it was."""
        self.number += 1
        job = f"job-{self.number}"
        errand = self.choose(ERRANDS)
        mishap = self.choose(MISHAPS)
        name = f"{errand.__name__}, {mishap.__name__}"
        before, life = self.config(), self.life()
        self.sent += [(self.now(), job), (self.now(), f"probe-{self.number}")]
        try:
            sent = errand(self, job)
            if mishap is not nothing:
                self.let_pass(self.random.uniform(0, 40))
                mishap(self)
            self.wait_for_quiet(f"probe-{self.number}")
        except (TimeoutError, OSError) as error:
            self.broken.append(f"{job} ({name}): {error}")
            return name
        found = [*self.wrong_jobs(sent, mishap), *self.wrong_configuration(sent, mishap, before),
                 *self.leftovers(), *self.wrong_life(sent, mishap, life)]
        self.broken += [f"{job} ({name}): {line}" for line in found]
        self.age()
        return name

    def choose(self, weights):
        return self.random.choices(list(weights), list(weights.values()))[0]

    def wait_for_quiet(self, probe):
        """Until a job that is sent now has ended, and nothing is left under way. Real seconds are the router's by
        the pace, so the bound is many times what anything takes."""
        self.send_until_stored(probe)
        self.router.wait_until(lambda: probe in self.names(f"{JOBS}/archive") and self.is_quiet(),
                               QUIET_WITHIN / BUSY_PACE, f"the end of {probe}, and quiet")

    def send_until_stored(self, probe):
        for _ in range(QUIET_WITHIN // RESEND_AFTER):
            if self.cloud.link.is_connected():
                self.cloud.send_script(probe, "true")
            try:
                self.router.wait_until(lambda: self.was_stored(probe), RESEND_AFTER / BUSY_PACE, "the probe")
                return
            except TimeoutError:
                pass
        raise TimeoutError(f"no agent took {probe}")

    def is_quiet(self):
        return not self.names(f"{JOBS}/active") and not self.leftovers() and self.router.status()["state"] == "up"

    # --- what must hold

    def wrong_jobs(self, sent, mishap):
        """A stored job is archived with the end that the cloud was told; a script has run as often as it may."""
        for job, wanted in sent.jobs.items():
            record = self.archived(job)
            if record is None:
                if mishap is nothing or (self.was_stored(job) and mishap is not full_disk):
                    yield f"{job} is not in the archive"
                continue
            self.finished += 1
            status = record.get("status")
            told = self.cloud.statuses(job)
            if status not in ("success", "failed") or record.get("ack") is not True:
                yield f"{job} is archived as {status!r}, acknowledged: {record.get('ack')}"
            elif told[-1:] != [status]:
                yield f"{job} is archived as {status}, the cloud was told {told}"
            if mishap is nothing and status != wanted:
                yield f"{job} is {status}, not {wanted}"
        for job, most in sent.runs.items():
            runs = self.count_runs(job)
            if runs > most or (runs == 0 and (self.archived(job) or {}).get("status") == "success"):
                yield f"{job} ran {runs} times"

    def archived(self, job):
        text = self.text(f"{JOBS}/archive/{job}")
        return json.loads(text) if text else None

    def wrong_configuration(self, sent, mishap, before):
        running, stored = self.config(), json.loads(self.text(STORED))
        if running != stored:
            yield "running and persistent configuration differ"
        for path, hash_file in HASHES.items():
            if self.text(hash_file).strip() != config_hash(json.loads(self.text(path))):
                yield f"{path} does not fit its hash"
        wanted = sent.config or before
        if mishap is nothing and running != wanted:
            yield "another configuration runs than was to be"
        if running not in (before, wanted):
            yield "a configuration runs that nobody sent"

    def leftovers(self):
        return [f"left: {path}" for path in MARKS if self.router.live(path).exists()]

    def wrong_life(self, sent, mishap, life):
        if not sent.reboots and mishap not in RESTARTS and self.life() != life:
            yield f"the agent was {life}, and is {self.life()}"
