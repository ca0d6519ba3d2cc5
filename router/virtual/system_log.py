"""The router's system log.

The launcher itself listens where the programs inside log to, /dev/log: the socket lies outside and is there
before the first boot. What a program has logged lies in it, whether or not the router still runs, so neither
the first line of a boot is lost nor the last one before a reboot, and no line is counted twice. Every line
goes, in the form of BusyBox's daemon,

    to log/messages in the state folder: all boots, never rotated
    to /var/volatile/log/messages inside, in memory, where housekeeping rotates it
"""
import os
import re
import socket
import time
from pathlib import Path

from router.virtual.state import short_path

FACILITIES = ("kern user mail daemon auth syslog lpr news uucp cron authpriv ftp 12 13 14 15 "
              "local0 local1 local2 local3 local4 local5 local6 local7").split()
LEVELS = "emerg alert crit err warning notice info debug".split()
USER_NOTICE = 13
LONGEST = 1 << 16
STAMP = re.compile(rb"[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d ")


def line_of(datagram, now):
    """One line: time of arrival, host name, priority, text."""
    priority, text = USER_NOTICE, datagram.rstrip(b"\0\n")
    found = re.match(rb"<(\d{1,3})>", text)
    if found:
        text = text[found.end():]
        priority = int(found[1]) if int(found[1]) < 8 * len(FACILITIES) else USER_NOTICE
    stamp = STAMP.match(text)
    text = text[stamp.end():] if stamp else text
    text = text.replace(b"\n", b" ")
    text = re.sub(rb"[\0-\x08\x0a-\x1f]", lambda m: b"^" + bytes([m[0][0] + 64]), text)
    name = f"{FACILITIES[priority >> 3]}.{LEVELS[priority & 7]}"
    return time.strftime("%b %e %H:%M:%S", time.gmtime(now)).encode() + f" router {name} ".encode() + text + b"\n"


class SystemLog:
    def __init__(self, listening, kept, inside):
        """Paths: of the socket, of the log outside, and of the one inside."""
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.setblocking(False)
        Path(listening).unlink(missing_ok=True)
        with short_path(listening) as name:
            self.socket.bind(name)
        os.chmod(listening, 0o666)
        self.kept = open(kept, "ab", buffering=0)       # pylint: disable=consider-using-with
        self.inside = inside

    def fileno(self):
        return self.socket.fileno()

    def length(self):
        """Of the log outside, in bytes."""
        return os.fstat(self.kept.fileno()).st_size

    def take(self):
        """Writes down all that has been logged by now."""
        lines = []
        while (datagram := self.receive()) is not None:
            lines.append(line_of(datagram, time.time()))
            self.kept.write(lines[-1])
        if lines:
            self.write_inside(b"".join(lines))

    def receive(self):
        try:
            return self.socket.recv(LONGEST)
        except BlockingIOError:
            return None

    def write_inside(self, text):
        """Opened anew each time, as rotation takes the file away. A full memory has no room for logs."""
        try:
            with open(self.inside, "ab", buffering=0) as messages:
                messages.write(text)
        except OSError:
            pass
