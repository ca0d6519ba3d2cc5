"""The socket on which the launcher takes orders: one JSON object a line, answered with one.

Nobody there can hold the launcher up: a line is taken when it is whole, however long that takes, and a
connection that only waits is closed when too many others do.
"""
import json
import selectors
import socket

from router.virtual.state import listen_unix

CONNECTIONS = 64
LONGEST = 1 << 16


class Control:
    def __init__(self, path, selector, order):
        """order: called with each request, returns the answer."""
        self.path = path
        self.selector = selector
        self.order = order
        self.waiting = {}   # connection -> what it has sent so far, oldest first
        self.listener = listen_unix(path)
        self.listener.setblocking(False)
        selector.register(self.listener, selectors.EVENT_READ, self.accept)

    def accept(self):
        try:
            connection, _ = self.listener.accept()
        except OSError:
            return
        connection.setblocking(False)
        self.waiting[connection] = b""
        self.selector.register(connection, selectors.EVENT_READ, lambda: self.read(connection))
        if len(self.waiting) > CONNECTIONS:
            self.end(next(iter(self.waiting)))

    def read(self, connection):
        if connection not in self.waiting:      # closed since it became readable
            return
        try:
            data = connection.recv(LONGEST)
        except BlockingIOError:
            return
        except OSError:
            data = b""
        sent = self.waiting[connection] + data
        self.waiting[connection] = sent
        if b"\n" in sent:
            self.answer(connection, sent.split(b"\n")[0])
        if not data or b"\n" in sent or len(sent) > LONGEST:
            self.end(connection)

    def answer(self, connection, line):
        try:
            answer = self.order(json.loads(line))
        except (ValueError, KeyError, TypeError, AttributeError) as error:
            answer = {"error": f"not understood: {error!r}"}
        try:
            connection.send(json.dumps(answer).encode() + b"\n", socket.MSG_NOSIGNAL)
        except OSError:
            pass    # nobody waits for it any more

    def end(self, connection):
        del self.waiting[connection]
        self.selector.unregister(connection)
        connection.close()

    def close(self):
        for connection in list(self.waiting):
            self.end(connection)
        self.listener.close()
        self.path.unlink(missing_ok=True)
