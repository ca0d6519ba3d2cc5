"""What the HTTP servers of the cloud's side have in common.

They listen on the cloud's side of a router's wire while their code runs in the calling process: a helper
opens the socket there and hands it over.
"""
import http.server
import socket
import subprocess
import threading

from router.virtual.waiting import wait_for

OPENER = """
import socket, sys
listener = socket.create_server(("", int(sys.argv[1])))
socket.send_fds(socket.socket(fileno=0), [b"x"], [listener.fileno()])
"""


def listen_on_cloud_side(router, port):
    """A listening socket in the network of the router's cloud side."""
    ours, theirs = socket.socketpair()
    with ours, theirs:
        subprocess.run([*router.nsenter(cloud=True), "/usr/bin/python3", "-c", OPENER, str(port)],
                       stdin=theirs, check=True, timeout=20)
        _, fds, _, _ = socket.recv_fds(ours, 1, 1)
    return socket.socket(fileno=fds[0])


class Listener(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, owner, listening, handler, tls=None):
        super().__init__(("", 0), handler, bind_and_activate=False)
        self.socket.close()
        self.socket = listening
        self.owner = owner
        self.tls = tls

    def finish_request(self, request, client_address):
        if self.tls:
            request = self.tls.wrap_socket(request, server_side=True)
        super().finish_request(request, client_address)

    def handle_error(self, request, client_address):
        self.owner.arrived("broken connection")


class Endpoint:
    """A server that records its requests, to be used in a with statement. `fault` is what the next ones meet."""

    def __init__(self, router, port, handler, tls=None):
        self.fault = None
        self.requests = []
        self.released = threading.Event()
        self.changed = threading.Condition()
        self.listener = Listener(self, listen_on_cloud_side(router, port), handler, tls)
        self.thread = threading.Thread(target=self.listener.serve_forever, args=(0.05,), daemon=True)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.release()
        self.listener.shutdown()
        self.listener.server_close()

    def release(self):
        """Ends every stall."""
        self.released.set()

    def arrived(self, request):
        with self.changed:
            self.requests.append(request)
            self.changed.notify_all()

    def wait_for(self, found, seconds, what):
        return wait_for(self.changed, found, seconds, what, lambda: f"requests so far: {self.requests}")
