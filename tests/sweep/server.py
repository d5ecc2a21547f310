"""A database server that hangs up, or refuses a statement: a proxy in front of the real one.

It takes over the socket that the program connects to and passes on what both sides say, until
  cut         so many bytes of answers have gone to the program; then it closes that connection
  cut, gone   and every later one at once, too
  unheard     the statement of that number comes, which the server never sees; it closes that connection
  refused     the statement of that number comes, which is answered with an error
  empty       the statement of that number comes, which is answered with no row
"""

import os
import re
import selectors
import socket
import struct
import threading

from faults import Fault
from panel import SOCKET

REAL = SOCKET + ".real"
CHUNK = 65536
REFUSAL = (1205, "HY000", "Lock wait timeout exceeded; try restarting transaction")


def _error_packet():
    number, state, text = REFUSAL
    body = b"\xff" + struct.pack("<H", number) + b"#" + state.encode() + text.encode()
    return len(body).to_bytes(3, "little") + b"\x01" + body


class _Connection:
    def __init__(self, client):
        self.client = client
        self.server = socket.socket(socket.AF_UNIX)
        self.server.connect(REAL)
        self.asked = b""  # a statement that has not come whole
        self.logged_in = False


class Proxy:
    """Serves until close(). begin() sets what the next run meets; `bytes` and `statements` count what it used."""

    def __init__(self):
        os.rename(SOCKET, REAL)
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(SOCKET)
        self.listener.listen(50)
        self.selector = selectors.DefaultSelector()
        self.selector.register(self.listener, selectors.EVENT_READ, None)
        self.lock = threading.Lock()
        self.begin(None)
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def close(self):
        """The server is the server again; what was connected stays so."""
        os.rename(REAL, SOCKET)

    def begin(self, fault):
        with self.lock:
            self.fault = fault
            self.bytes = 0
            self.statements = []
            self.met = False

    def _is(self, how, number):
        return self.fault is not None and self.fault.how.startswith(how) and self.fault.number == number

    def _serve(self):
        while True:
            for key, _ in self.selector.select():
                with self.lock:
                    try:
                        self._handle(key)
                    except OSError:
                        if key.data:
                            self._hang_up(key.data)

    def _handle(self, key):
        if key.fileobj is self.listener:
            self._accept()
        elif key.fileobj.fileno() < 0:
            return  # hung up by an event before
        elif key.fileobj is key.data.client:
            self._from_client(key.data)
        else:
            self._from_server(key.data)

    def _accept(self):
        client, _ = self.listener.accept()
        if self.met and self.fault.how.endswith("gone"):
            client.close()
            return
        connection = _Connection(client)
        self.selector.register(client, selectors.EVENT_READ, connection)
        self.selector.register(connection.server, selectors.EVENT_READ, connection)

    def _hang_up(self, connection):
        for end in (connection.client, connection.server):
            if end.fileno() >= 0:
                self.selector.unregister(end)
                end.close()

    def _from_server(self, connection):
        data = connection.server.recv(CHUNK)
        if not data:
            return self._hang_up(connection)
        if self.fault is not None and self.fault.how.startswith("cut") and not self.met and \
                self.bytes + len(data) >= self.fault.number:
            connection.client.sendall(data[:self.fault.number - self.bytes])
            self.met = True
            return self._hang_up(connection)
        self.bytes += len(data)
        connection.client.sendall(data)

    def _from_client(self, connection):
        data = connection.client.recv(CHUNK)
        if not data:
            return self._hang_up(connection)
        if not connection.logged_in:
            connection.logged_in = True
            return connection.server.sendall(data)
        connection.asked += data
        while len(connection.asked) >= 4:
            size = 4 + int.from_bytes(connection.asked[:3], "little")
            if len(connection.asked) < size:
                return None
            packet, connection.asked = connection.asked[:size], connection.asked[size:]
            if not self._statement(connection, packet):
                return None
        return None

    def _statement(self, connection, packet):
        """Passes a statement on; false when the connection is gone."""
        self.statements.append(packet[5:].decode("utf-8", "replace"))
        if self._is("unheard", len(self.statements)):
            self.met = True
            self._hang_up(connection)
            return False
        if self._is("refused", len(self.statements)):
            self.met = True
            connection.client.sendall(_error_packet())
        elif self._is("empty", len(self.statements)):
            body = packet[4:] + b" and 1=0"
            connection.server.sendall(len(body).to_bytes(3, "little") + packet[3:4] + body)
        else:
            connection.server.sendall(packet)
        return True


# Statements whose failure is reported and then counts as no row, of that statement or of one some statements before.
SETTINGS = {
    r"select val from misc where param='cf_instance_port'": 1,  # as good as no directory of ColdFusion
    r"select val from misc where param='\w+'": 0,
    r"select val from dom_param where dom_id='\d+' and param='\w+'": 0,
    r"select status from DomainServices where dom_id='\d+' and type='\w+'": 0,
    r"SELECT version FROM Components WHERE name = '[\w-]+'": 0,
}


class ServerFault(Fault):
    statement = ""

    def __init__(self, number, how, proxy):
        super().__init__(number, how)
        self.proxy = proxy

    def __repr__(self):
        return f"{self.number} {self.how}: {self.statement}"

    @property
    def unknown_setting(self):
        if self.how == "refused":
            for pattern, before in SETTINGS.items():
                if re.fullmatch(pattern, self.statement):
                    return self.number - before
        return super().unknown_setting

    def run_without_setting(self, scene, operation):
        if self.unknown_setting == super().unknown_setting:
            super().run_without_setting(scene, operation)
            return
        self.proxy.begin(Fault(self.unknown_setting, "empty"))
        scene.run(operation)
        self.proxy.begin(None)


class Sweep:
    name = "server"

    def __init__(self, scene):
        self.scene = scene
        self.proxy = Proxy()

    def cases(self, operation):
        self.proxy.begin(None)
        self.scene.run(operation)
        self.statements = list(self.proxy.statements)
        total = self.proxy.bytes
        for number in range(1, len(self.statements) + 1):
            for how in ("unheard", "unheard, gone", "refused"):
                yield ServerFault(number, how, self.proxy)
        for number in range(total + 1):
            yield ServerFault(number, "cut", self.proxy)
            if number % 16 == 0:
                yield ServerFault(number, "cut, gone", self.proxy)

    def play(self, operation, fault):
        self.proxy.begin(fault)
        outcome = self.scene.run(operation)
        met, statements = self.proxy.met, self.proxy.statements
        self.proxy.begin(None)  # the next run is undisturbed
        number = len(statements) if fault.how.startswith("cut") else fault.number
        fault.statement = statements[number - 1] if 0 < number <= len(statements) else ""
        return outcome if met else None

    def close(self):
        self.proxy.close()
