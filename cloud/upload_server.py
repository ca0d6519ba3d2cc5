"""The HTTP and HTTPS endpoint that receives the results of jobs.

`fault` says what the next requests meet:

    None            200
    a number        that status, after the body was read
    "stall"         the body is not read and nothing is answered, until release()
    "cut"           the connection is closed in the middle of the body
"""
import email
import email.policy
import http.server
import socket
import ssl
import time
from dataclasses import dataclass

from cloud.endpoint import Endpoint


@dataclass
class Part:
    content_type: str
    name: str
    file_name: str
    data: bytes


@dataclass
class Upload:
    at: float
    path: str
    headers: dict
    parts: list


def parts_of(content_type, body):
    document = email.message_from_bytes(f"Content-Type: {content_type}\r\n\r\n".encode() + body,
                                        policy=email.policy.HTTP)
    if not document.is_multipart():
        return []
    return [Part(part.get_content_type(), part.get_param("name", header="content-disposition"),
                 part.get_filename(), part.get_payload(decode=True)) for part in document.iter_parts()]


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_POST(self):
        owner = self.server.owner
        fault = owner.fault
        owner.arrived(self.path)
        if fault == "stall":
            owner.released.wait()
            self.close_connection = True
            return
        if fault == "cut":
            self.rfile.read(min(16, int(self.headers.get("Content-Length", 16))))
            self.cut()
            return
        body = self.read_body()
        owner.take(Upload(time.time(), self.path, dict(self.headers),
                          parts_of(self.headers.get("Content-Type", ""), body)))
        self.answer(fault or 200)

    def answer(self, status):
        text = b'{"rc":%d}' % status
        self.send_response(status)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(text)))
        self.end_headers()
        self.wfile.write(text)

    def cut(self):
        self.close_connection = True
        linger_off = b"\1\0\0\0\0\0\0\0"    # an abort on the wire, not an orderly end
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, linger_off)

    def read_body(self):
        if self.headers.get("Transfer-Encoding", "").lower() != "chunked":
            return self.rfile.read(int(self.headers.get("Content-Length", 0)))
        body = b""
        while size := int(self.rfile.readline().split(b";")[0], 16):
            body += self.rfile.read(size)
            self.rfile.readline()
        self.rfile.readline()
        return body

    def log_message(self, *_):
        pass


class UploadServer(Endpoint):
    def __init__(self, router, port=80, certificate=None):
        """certificate: the path of a PEM file with key and certificate makes it HTTPS."""
        self.uploads = []
        tls = None
        if certificate:
            tls = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
            tls.load_cert_chain(certificate)
        super().__init__(router, port, Handler, tls)

    def take(self, upload):
        with self.changed:
            self.uploads.append(upload)
            self.changed.notify_all()

    def wait_for_upload(self, seconds=30):
        return self.wait_for(lambda: self.uploads and self.uploads[-1], seconds, "an upload")

    def wait_for_request(self, seconds=30):
        return self.wait_for(lambda: self.requests and self.requests[-1], seconds, "a request")
