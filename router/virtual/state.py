"""The state folder of one router: every path that the host's side writes to.

    options.json     what `vrouter up` was asked for
    status.json      what the launcher says: replaced whole, read by anybody
    events           what happens, a JSON object a line: see events.py
    control          the launcher's socket
    data/            /var/data of the router
    outside/         shared with the inside: the sockets of broker and log, switches, a notify socket
    slots/1, slots/2 symbolic links to the image that each firmware slot holds
    etc/             files bound over read-only ones of the image
    live/            mount point of the memory that a power cut takes away
    log/             the system log of all boots, what the boots wrote to their console, and the launcher's output
"""
import json
import os
import socket
from contextlib import contextmanager
from pathlib import Path

TREE = Path(__file__).resolve().parent.parent.parent
DEFAULT_ROOT = Path(os.environ.get("VROUTER_STATE", TREE / "build" / "vrouter"))
FOLDERS = ("data", "outside", "slots", "etc", "live", "log")


class StateFolder:
    def __init__(self, folder):
        self.folder = Path(folder).resolve()

    def __truediv__(self, name):
        return self.folder / name

    def make(self):
        for name in FOLDERS:
            (self.folder / name).mkdir(parents=True, exist_ok=True)

    def read(self, name):
        """The JSON document of that name, or an empty object."""
        try:
            return json.loads((self.folder / name).read_text())
        except (FileNotFoundError, ValueError):
            return {}

    def write(self, name, document):
        replace_file(self.folder / name, json.dumps(document, indent=1) + "\n")


def replace_file(path, text):
    new = path.with_name(path.name + ".new")
    new.write_text(text)
    new.rename(path)


@contextmanager
def short_path(path):
    """A name for path that fits a Unix socket address, however deep the state folder lies."""
    folder = os.open(Path(path).parent, os.O_PATH | os.O_DIRECTORY)
    try:
        yield f"/proc/self/fd/{folder}/{Path(path).name}"
    finally:
        os.close(folder)


def connect_unix(path, timeout=None):
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    connection.settimeout(timeout)
    try:
        with short_path(path) as name:
            connection.connect(name)
    except OSError:
        connection.close()
        raise
    return connection


def listen_unix(path):
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    Path(path).unlink(missing_ok=True)
    with short_path(path) as name:
        listener.bind(name)
    listener.listen()
    return listener
