"""The router's clock, when it is not this machine's.

The agent and its children run under libfaketime, which reads one line, "+OFFSET xSPEED", from a
file at each call and counts from the moment at which the first of them started in this boot. The
router's time is a straight line from when the router was made, plus whatever steps it was given,
so that it goes on through reboots as a clock with a battery does. The line may get another slope.
"""
import time

from router.virtual.state import replace_file


class Clock:
    def __init__(self, path, speed, first=None):
        """first: the time to begin with, in seconds since the epoch; this machine's when None."""
        self.path = path
        self.speed = speed
        self.since = time.time()    # the straight line: then it was `at`, and has gone on at `speed`
        self.at = self.since if first is None else first
        self.stepped = 0.0
        self.booted = self.since

    def start(self, at=None):
        """Libfaketime counts anew from then, a time of this machine; now, when the router is about to boot."""
        self.booted = time.time() if at is None else at
        self.write()

    def step(self, seconds):
        self.at += seconds
        self.stepped += seconds
        self.write()

    def set(self, seconds_since_epoch):
        self.step(seconds_since_epoch - self.now())

    def pace(self, speed):
        """Goes on at that speed from now."""
        self.at, self.since = self.now(), time.time()
        self.speed = speed
        self.write()

    def now(self):
        return self.at + (time.time() - self.since) * self.speed

    def write(self):
        offset = self.at - self.booted - (self.since - self.booted) * self.speed
        replace_file(self.path, f"{offset:+.3f} x{self.speed:g}\n")
