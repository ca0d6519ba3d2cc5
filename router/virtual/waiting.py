"""How long one waits for what, and what is said when it does not come."""
import os
import time

# What a busy machine may add to anything, in seconds.
MARGIN = 30
POLL = 0.02
LOOK_AGAIN = 1      # seconds after which a wait looks at the machine's load
LOAD_AT_MOST = 3


def patience(router_seconds, speed=1):
    """Real seconds within which something that takes so many of the router's has happened."""
    return router_seconds / speed + MARGIN


def machine_load():
    """How many want each processor; 1 when none has to wait."""
    return min(LOAD_AT_MOST, max(1.0, os.getloadavg()[0] / os.cpu_count()))


def pause():
    """Before each wait, to find those that come too late: VROUTER_PAUSE is how many seconds."""
    seconds = float(os.environ.get("VROUTER_PAUSE") or 0)
    if seconds:
        time.sleep(seconds)


class Deadline:
    """That many seconds from now, more on a machine that is asked for more than it has."""

    def __init__(self, seconds):
        self.seconds = seconds
        self.began = time.monotonic()

    def left(self):
        """Seconds; 0 when it has passed."""
        return max(0, self.seconds * machine_load() - self.waited())

    def waited(self):
        return time.monotonic() - self.began


def wait_for(changed, found, seconds, what, seen):
    """What found() returns, as soon as that is true; asked again at each notification of the condition variable.
    seen: called for what to say when it does not come."""
    pause()
    with changed:
        deadline = Deadline(seconds)
        while not (result := found()):
            left = deadline.left()
            if not left:
                raise TimeoutError(f"waited {deadline.waited():.0f} s for {what}; {seen()}")
            changed.wait(min(left, LOOK_AGAIN))
        return result
