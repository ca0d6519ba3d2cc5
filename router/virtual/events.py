"""What happens to a router, as a stream that outlives its boots: the file `events` in the state folder.

One JSON object a line, written by the launcher alone, only ever appended to. docs/router-services.md says
which kinds there are and what they bear. All have:

    at      this machine's time when the launcher saw it, in seconds since 1970
    time    the router's time when it happened
    kind    what happened
    boot    the number of the boot in which it did, 0 before the first

What the inside tells, the launcher takes from two files that are only appended to and never cut: the journal
of the services, which lies outside, and the events of applies, which lie in the router's memory. The latter
are looked at when they change and once more when a boot has ended: by then every process of it is dead, and
its memory is still mounted. So no text is lost, however soon after it the router reboots.
"""
import json
import time

from router.virtual.tail import Tail

KINDS_OF_APPLIES = {"begin": "apply-begin", "text": "progress", "end": "apply-end"}


class EventStream:
    """The launcher's end."""

    def __init__(self, path, router_time):
        self.file = open(path, "ab", buffering=0)       # pylint: disable=consider-using-with
        self.router_time = router_time
        self.boot = 0

    def tell(self, kind, happened=None, **facts):
        """happened: the router's time, when it is known better than now."""
        event = {"at": round(time.time(), 3), "time": round(happened or self.router_time(), 3), "kind": kind,
                 "boot": self.boot, **facts}
        self.file.write(json.dumps(event).encode() + b"\n")


class InsideEvents:
    """What the inside has written since the last look."""

    def __init__(self, stream, journal):
        self.stream = stream
        self.journal = Tail(journal)
        self.applies = None

    def boot_begins(self, applies):
        self.applies = Tail(applies)

    def look(self):
        for line in self.journal.lines():
            _, service, text = line.decode(errors="replace").split("\t", 2)
            self.stream.tell("service", service=service, text=text)
        for line in self.applies.lines() if self.applies else []:
            event = json.loads(line)
            text = {"text": event["text"]} if "text" in event else {}
            self.stream.tell(KINDS_OF_APPLIES[event["event"]], event["time"], **text)

    def boot_ended(self):
        self.look()
        self.applies.close()
        self.applies = None


class EventReader:
    """The other end: every event so far."""

    def __init__(self, path):
        self.tail = Tail(path)
        self.known = []

    def events(self):
        before = self.tail.replaced
        new = [json.loads(line) for line in self.tail.lines()]
        if self.tail.replaced != before:
            self.known = []
            self.tail = Tail(self.tail.path)
            new = [json.loads(line) for line in self.tail.lines()]
        self.known += new
        return self.known


def told(event):
    """An event as a person reads it."""
    left_out = ("at", "time", "kind", "boot", "log")
    facts = ", ".join(f"{name} {value}" for name, value in event.items() if name not in left_out)
    clock = time.strftime("%H:%M:%S", time.gmtime(event["time"]))
    return f"{clock} boot {event['boot']} {event['kind']}{': ' if facts else ''}{facts}"
