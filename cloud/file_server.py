"""The HTTP server that devices fetch files from and send files to.

`files` are the ones that are there: {path: a file of this machine, or bytes}; what a device sends is added
to them. Requests must bear the token, when one is set. `fault` says what the next requests meet:

    None         what was asked for
    a number     that status
    "cut"        half of the file, then the connection ends
    "stall"      half of the file, then nothing more, until release()
    "corrupt"    one byte in the middle of the file is another
"""
import http.server
from pathlib import Path

from cloud.endpoint import Endpoint


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        owner = self.server.owner
        owner.arrived(f"GET {self.path}")
        content = owner.files.get(self.path.split("?")[0])
        status = self.refusal() or (200 if content is not None else 404)
        if status != 200:
            self.answer(status)
            return
        data = content if isinstance(content, bytes) else Path(content).read_bytes()
        self.send_file(data, owner.fault)

    def do_PUT(self):
        owner = self.server.owner
        data = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        status = self.refusal() or 200
        if status == 200:
            owner.files[self.path.split("?")[0]] = data
        owner.arrived(f"{self.command} {self.path}")
        self.answer(status)

    do_POST = do_PUT

    def refusal(self):
        owner = self.server.owner
        if isinstance(owner.fault, int):
            return owner.fault
        if owner.token and self.headers.get("Authorization") != f"Bearer {owner.token}":
            return 401
        return None

    def send_file(self, data, fault):
        self.send_response(200)
        self.send_header("Content-Type", "application/octet-stream")
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        middle = len(data) // 2
        self.wfile.write(data[:middle])
        if fault == "stall":
            self.server.owner.released.wait()
        if fault in ("cut", "stall"):
            self.close_connection = True
            return
        if fault == "corrupt":
            self.wfile.write(bytes([data[middle] ^ 1]))
            middle += 1
        self.wfile.write(data[middle:])

    def answer(self, status):
        self.send_response(status)
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, *_):
        pass


class FileServer(Endpoint):
    def __init__(self, router, port=8000, token=None):
        self.token = token
        self.files = {}
        super().__init__(router, port, Handler)

    def serve_image(self, image):
        """A firmware image and its checksum; returns the path under which it is there."""
        path = f"/firmware/{image.name}"
        self.files[path] = image
        self.files[f"{path}.sha256"] = Path(f"{image}.sha256")
        return path

    def wait_for_request(self, request, seconds=30):
        self.wait_for(lambda: request in self.requests, seconds, request)
