"""Sockets of a test that stand where the agent looks for them."""
import os
import select
import socket
import struct
import subprocess
import threading
import time

from cloud.endpoint import OPENER
from router.virtual.state import short_path
from router.virtual.waiting import Deadline, pause

SO_TIMESTAMP = 29       # the kernel tells with each datagram when it was sent


class NotifySocket:
    """The service manager's end of the watchdog protocol."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMP, 1)
        with short_path(path) as name:
            self.socket.bind(name)
        os.chmod(path, 0o777)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def wait_for_ping(self, seconds):
        """When the next WATCHDOG=1 was sent, in seconds, however late it is read."""
        pause()
        deadline = Deadline(seconds)
        while select.select([self.socket], [], [], deadline.left())[0]:
            data, ancillary, _, _ = self.socket.recvmsg(4096, 64)
            if b"WATCHDOG=1" in data.split(b"\n"):
                whole, micro = struct.unpack("ll", ancillary[0][2])
                return whole + micro / 1e6
        raise TimeoutError(f"waited {deadline.waited():.0f} s for a ping of the watchdog")


class ConnectionCounter:
    """Stands in the broker's place on the router's loopback; closes every connection when it has said who it is,
    and notes the time when it is the agent. Other services try as well."""

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
                connection = self.listener.accept()[0]
                now = time.monotonic()
                with connection:
                    if self.is_agent(connection):
                        self.times.append(now)

    @staticmethod
    def is_agent(connection):
        connection.settimeout(5)
        try:
            return b"\0\7tessard" in connection.recv(256)
        except OSError:
            return False

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.stopping.set()
        self.thread.join()
        self.listener.close()
