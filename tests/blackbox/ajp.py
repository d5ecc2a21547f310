"""A Tomcat for the connector: speaks just enough AJP13 to say which path it was asked for."""

import socketserver
import struct
import threading

FORWARD_REQUEST, SEND_BODY, SEND_HEADERS, END_RESPONSE = 2, 3, 4, 5


def _text(value):
    return struct.pack(">H", len(value)) + value + b"\0"


def _path(packet):
    """Behind the kind and the method come protocol and path, each a length, text and a zero."""
    protocol = struct.unpack_from(">H", packet, 2)[0]
    start = 4 + protocol + 1
    length = struct.unpack_from(">H", packet, start)[0]
    return packet[start + 2:start + 2 + length]


class _Connection(socketserver.StreamRequestHandler):
    def handle(self):
        while len(head := self.rfile.read(4)) == 4:
            packet = self.rfile.read(struct.unpack(">2xH", head)[0])
            if packet[0] != FORWARD_REQUEST:
                continue
            path = _path(packet)
            self.server.asked.append(path.decode())
            body = b"Tomcat: " + path
            self._send(struct.pack(">BH", SEND_HEADERS, 200) + _text(b"OK") + struct.pack(">H", 1) +
                       _text(b"Content-Type") + _text(b"text/plain"))
            self._send(struct.pack(">BH", SEND_BODY, len(body)) + body + b"\0")
            self._send(struct.pack(">BB", END_RESPONSE, 1))

    def _send(self, packet):
        self.wfile.write(b"AB" + struct.pack(">H", len(packet)) + packet)


class _Server(socketserver.ThreadingTCPServer):
    allow_reuse_address = True
    daemon_threads = True


class Tomcat:
    """Listens while it is entered; `asked` are the paths so far."""

    def __init__(self, port):
        self.port = port

    def __enter__(self):
        self.server = _Server(("127.0.0.1", self.port), _Connection)
        self.asked = self.server.asked = []
        threading.Thread(target=self.server.serve_forever, kwargs={"poll_interval": 0.05}, daemon=True).start()
        return self

    def __exit__(self, *exception):
        self.server.shutdown()
        self.server.server_close()
