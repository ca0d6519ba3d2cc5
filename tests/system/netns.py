"""Sockets of a test that stand where the agent looks for them."""
import os
import select
import socket
import subprocess
import threading
import time

from cloud.upload_server import OPENER
from router.virtual.state import short_path


class NotifySocket:
    """The service manager's end of the watchdog protocol."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        with short_path(path) as name:
            self.socket.bind(name)
        os.chmod(path, 0o777)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def wait_for_ping(self, seconds):
        """The time of the next WATCHDOG=1."""
        self.socket.settimeout(seconds)
        while True:
            if b"WATCHDOG=1" in self.socket.recv(4096).split(b"\n"):
                return time.monotonic()


class ConnectionCounter:
    """Stands on a port of the router's loopback; closes every connection at once and notes the time."""

    def __init__(self, router, port):
        ours, theirs = socket.socketpair()
        with ours, theirs:
            pid = router.status()["init"]
            subprocess.run(["nsenter", "-t", str(pid), "-U", "-n", "--preserve-credentials", "--",
                            "/usr/bin/python3", "-c", OPENER, str(port)], stdin=theirs, check=True, timeout=20)
            _, fds, _, _ = socket.recv_fds(ours, 1, 1)
        self.listener = socket.socket(fileno=fds[0])
        self.times = []
        self.stopping = threading.Event()
        self.thread = threading.Thread(target=self.serve, daemon=True)

    def serve(self):
        while not self.stopping.is_set():
            if select.select([self.listener], [], [], 0.05)[0]:
                self.listener.accept()[0].close()
                self.times.append(time.monotonic())

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.stopping.set()
        self.thread.join()
        self.listener.close()
