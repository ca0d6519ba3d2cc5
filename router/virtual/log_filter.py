"""Which lines of the system log a person wants to see."""
import calendar
import re
import time
from dataclasses import dataclass

from router.virtual.system_log import LEVELS

LINE = re.compile(r"(?P<stamp>\w{3} [ \d]\d \d\d:\d\d:\d\d) \S+ \w+\.(?P<level>\w+) (?P<text>.*)")
AGO = re.compile(r"(\d+)([smh])")
UNITS = {"s": 1, "m": 60, "h": 3600}
FORMS = ("%H:%M", "%H:%M:%S", "%Y-%m-%d %H:%M:%S")


def time_of(text, now):
    """A moment in seconds since the epoch: "90s", "5m" or "2h" before now, or a time as the log shows it (UTC),
    "14:05", "14:05:09" (of today) or "2026-11-22 14:05:09"."""
    if ago := AGO.fullmatch(text):
        return now - int(ago[1]) * UNITS[ago[2]]
    for form in FORMS:
        try:
            parsed = time.strptime(text, form)
        except ValueError:
            continue
        day = parsed if "%Y" in form else time.gmtime(now)
        return seconds_of(day[:3] + parsed[3:6])
    raise ValueError(f"no time: {text!r}; 90s, 5m, 2h, 14:05, 14:05:09 or '2026-11-22 14:05:09'")


def seconds_of(fields):
    return calendar.timegm((*fields, 0, 0, 0))


def stamp_time(stamp, now):
    """The log says no year: the latest one in which this moment is not yet to come."""
    year = time.gmtime(now).tm_year
    parsed = time.strptime(f"{year} {stamp}", "%Y %b %d %H:%M:%S")
    moment = seconds_of(parsed[:6])
    return moment if moment <= now + 1 else seconds_of((year - 1, *parsed[1:6]))


@dataclass(frozen=True)
class LogFilter:
    """job: lines with this id as a word; level: this priority and those more urgent; since: seconds."""
    job: str = None
    level: str = None
    since: float = None

    def wants(self, line, now):
        found = LINE.fullmatch(line)
        if not found:
            return not (self.job or self.level or self.since)
        if self.level and LEVELS.index(found["level"]) > LEVELS.index(self.level):
            return False
        if self.since and stamp_time(found["stamp"], now) < self.since:
            return False
        return not self.job or names(found["text"], self.job)


def names(text, job):
    return re.search(rf"(?<![\w.-]){re.escape(job)}(?![\w-]|\.\w)", text) is not None
