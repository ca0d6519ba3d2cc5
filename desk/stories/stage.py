"""The stage of a story: a router, its cloud, and a narrator who says what happens when.

Times are the router's, counted from the start of the story.
"""
import re
import sys
import time

from cloud.certificates import make_authority
from cloud.service import Report, Service, socket_of
from cloud.upload_server import UploadServer
from router.virtual.client import Router
from router.virtual.network import CLOUD_ADDRESS, CLOUD_NAME

ARCHIVE = "/var/data/orv/vantrel_iot/jobs/archive"
WHO_WIDTH = 8
LAST_LINES = 12
COLOURS = {"cloud": "36", "router": "33", "agent": "32", "server": "35"}


class StoryError(Exception):
    """What the story tells did not happen."""


class Narrator:
    def __init__(self, speed):
        self.speed = speed
        self.began = time.monotonic()
        self.colour = sys.stdout.isatty()

    def title(self, text, *sentences):
        print(f"\n=== {text}")
        for sentence in sentences:
            print(f"    {sentence}")
        print(flush=True)
        self.began = time.monotonic()

    def says(self, who, text):
        seconds = (time.monotonic() - self.began) * self.speed
        name = f"{who:<{WHO_WIDTH}}"
        if self.colour:
            name = f"\033[{COLOURS.get(who, '0')}m{name}\033[0m"
        first, *rest = text.splitlines() or [""]
        print(f"{seconds:7.1f} s  {name} {first}", flush=True)
        for line in rest:
            print(" " * (11 + WHO_WIDTH) + f" | {line}", flush=True)


class Stage:
    def __init__(self, build, speed, root=None):
        self.build = build
        self.speed = speed
        self.narrator = Narrator(speed)
        self.router = Router("demo", root)
        self.cloud = None
        self.told = 0
        self.story = ""
        self.seen = 0       # how many events the story has told, or left out

    def says(self, who, text):
        self.narrator.says(who, text)

    # --- the players

    def boot(self):
        began = time.monotonic()
        self.router.up(build=self.build, speed=self.speed)
        self.says("router", f"has booted, in {time.monotonic() - began:.2f} s of real time")

    def connect_cloud(self):
        self.cloud = Service(socket_of(self.router), on_message=self.tell_message)
        self.cloud.link.open()
        self.router.wait_until(self.cloud.link.is_connected, self.router.patience(0), "the cloud to reach the broker")

    def receive_uploads(self, folder):
        """An HTTPS server whose authority the router trusts."""
        authority, certificate = make_authority(folder, CLOUD_NAME, CLOUD_ADDRESS)
        self.router.trust(authority)
        return UploadServer(self.router, 443, certificate)

    def leave(self):
        if self.cloud:
            self.cloud.link.close()
        self.router.down()

    def whole_story(self):
        """The last lines of the log, and where all of it lies until the next demonstration."""
        lines = self.router.log().splitlines()[-LAST_LINES:]
        return "\n".join(["the last lines of the router's log:", *(f"  {line[:200]}" for line in lines),
                          f"all of it: {self.router.state / 'log/messages'}",
                          f"what happened: {self.router.state / 'events'}"])

    # --- what happens

    def tell_message(self, message):
        if isinstance(message, Report):
            extra = f", {message.msg!r}" if message.msg else ""
            self.says("agent", f"reports job {message.job}: {message.status}{extra}")
            self.says("cloud", f"acknowledges session {message.session}")
        elif message.topic.endswith("/checkin/apply"):
            self.says("agent", "checks in with the cloud")

    def next_events(self):
        """Those that were not handed out yet, one after the other."""
        for event in self.router.events()[self.seen:]:
            self.seen += 1
            yield event

    def skip_events(self):
        """What happened before is no business of what comes."""
        self.seen = len(self.router.events())

    def log_until(self, text):
        """Waits for the text to stand in the log."""
        self.router.wait_until(lambda: text in self.router.log(), self.router.patience(60), f"{text!r} in the log")

    def wait_for_archived(self, job):
        path = self.router.live(f"{ARCHIVE}/{job}")
        self.router.wait_until(path.exists, self.router.patience(60), f"job {job} in the archive")

    def show_log(self, *patterns):
        """The lines of the log that match, those shown before left out."""
        lines = self.router.log().splitlines()
        for line in lines[self.told:]:
            if any(re.search(pattern, line) for pattern in patterns):
                self.says("log", re.sub(r"mosquitto\[.*?\d+: ", "mosquitto: ", line.split(" router ", 1)[-1]))
        self.told = len(lines)
