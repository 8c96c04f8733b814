"""A gateway in a folder of its own, with a watch service that a test plays. Run by /usr/bin/python3."""

import json
import os
import re
import shutil
import signal
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

PROGRAM = sys.argv.pop(1)
PATIENCE_S = 60
KEY = "dGhlIHNhbXBsZSBub25jZQ=="


def until(condition, what):
    """Waits until the condition is true; a busy machine has a minute."""
    end = time.monotonic() + PATIENCE_S
    while time.monotonic() < end:
        value = condition()
        if value:
            return value
        time.sleep(0.01)
    raise AssertionError("not within a minute: " + what)


class Watch:
    """The watch service's sockets; connections are taken as they come, and one at a time is served."""

    def __init__(self, folder, name="link.sock"):
        self.path = os.path.join(folder, name)
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.listener.bind(self.path)
        self.listener.listen(8)
        self.listener.settimeout(PATIENCE_S)
        self.hosts = []

    def accept(self):
        host, _ = self.listener.accept()
        host.settimeout(PATIENCE_S)
        self.hosts.append(host)
        return host

    def echo(self):
        """Sends everything back, from now on, to whoever connects."""

        def serve():
            while True:
                try:
                    host, _ = self.listener.accept()
                    while packet := host.recv(65536):
                        host.send(packet)
                    host.close()
                except OSError:
                    return

        threading.Thread(target=serve, daemon=True).start()

    def close(self):
        self.listener.close()
        os.unlink(self.path)


class GatewayTest(unittest.TestCase):
    configuration = ""

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="parvane-gateway-")
        self.addCleanup(shutil.rmtree, self.folder)
        for name in ("watch", "state", "run"):
            os.mkdir(os.path.join(self.folder, name), 0o700)
        self.file = os.path.join(self.folder, "gateway.conf")
        self.configure(self.configuration)
        self.secrets = []
        self.log = os.path.join(self.folder, "log")
        self.process = None
        self.watch = Watch(os.path.join(self.folder, "watch"))
        self.addCleanup(self.watch.listener.close)
        self.start()

    def configure(self, web):
        with open(self.file, "w", encoding="utf-8") as file:
            file.write(f"[watch]\ndirectory={self.folder}/watch\n[web]\nport=0\n{web}\n"
                       f"[directories]\nstate={self.folder}/state\nruntime={self.folder}/run\n"
                       "[bluetooth]\nenabled=no\n")

    def as_user(self):
        """As whom the gateway runs: arguments of Popen."""
        return {}

    def program(self):
        """A copy that every user may run."""
        if not self.as_user():
            return PROGRAM
        copy = os.path.join(self.folder, "program")
        shutil.copy(PROGRAM, copy)
        return copy

    def start(self):
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen([self.program(), "--config", self.file], stderr=log, **self.as_user())
        self.addCleanup(self.stop)
        until(lambda: "serving" in self.log_text() or self.process.poll() is not None, "the start")
        self.assertIsNone(self.process.poll(), self.log_text())
        self.port = self.status()["roads"]["web"]["port"]

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            self.assertEqual(self.process.wait(PATIENCE_S), 0)
        text = self.log_text()
        for secret in self.secrets:
            self.assertNotIn(secret, text)

    def log_text(self):
        with open(self.log, encoding="utf-8") as log:
            return log.read()

    def command(self, *arguments):
        return subprocess.run([PROGRAM, "--config", self.file, *arguments], check=True,
                              stdout=subprocess.PIPE).stdout.decode()

    def status(self):
        return json.loads(self.command("status", "--json"))

    def token(self, name="phone", *options):
        secret = json.loads(self.command("token", "add", name, "--json", *options))["token"]
        self.secrets.append(secret)
        # The gateway reads the file when it has changed; the command does not wait for that.
        until(lambda: self.request("POST /session", f"Authorization: Bearer {secret}")[0] != 401, "the token")
        return secret

    def connect(self, source="127.0.0.1", tls=False):
        connection = socket.create_connection(("127.0.0.1", self.port), PATIENCE_S, (source, 0))
        if tls:
            context = ssl._create_unverified_context()  # the fingerprint is compared elsewhere
            connection = context.wrap_socket(connection, server_hostname="localhost")
        self.addCleanup(connection.close)
        return connection

    def request(self, line, *headers, source="127.0.0.9"):
        """Sends a request without a body. @return its status and the whole answer"""
        connection = self.connect(source)
        text = "\r\n".join((line + " HTTP/1.1", f"Host: 127.0.0.1:{self.port}", *headers, "", ""))
        connection.sendall(text.encode())
        answer = read_all(connection).decode()
        connection.close()
        return int(answer.split()[1]), answer

    def upgrade(self, *headers, path="/link", protocol="parvane.link.v1", rest=b"", **where):
        """Asks for a WebSocket. @return the status, and the connection when that is 101"""
        connection = self.connect(**where)
        lines = (f"GET {path} HTTP/1.1", f"Host: 127.0.0.1:{self.port}", "Upgrade: websocket",
                 "Connection: Upgrade", "Sec-WebSocket-Version: 13", "Sec-WebSocket-Key: " + KEY,
                 "Sec-WebSocket-Protocol: " + protocol, *headers, "", "")
        connection.sendall("\r\n".join(lines).encode() + rest)
        head = b""
        while b"\r\n\r\n" not in head:
            part = connection.recv(1)
            self.assertTrue(part, head)
            head += part
        return int(head.split()[1]), connection

    def phone(self, secret, **where):
        status, connection = self.upgrade("Authorization: Bearer " + secret, **where)
        self.assertEqual(status, 101)
        return connection


def read_all(connection):
    answer = b""
    try:
        while part := connection.recv(65536):
            answer += part
    except ConnectionResetError:
        pass
    return answer


def frame(payload, first=0x82, mask=b"\1\2\3\4"):
    """A frame of a client."""
    size = len(payload)
    length = (bytes([0x80 | size]) if size < 126 else
              struct.pack(">BH", 0xFE, size) if size < 65536 else struct.pack(">BQ", 0xFF, size))
    return bytes([first]) + length + mask + bytes(byte ^ mask[i % 4] for i, byte in enumerate(payload))


def receive_exactly(connection, size):
    data = b""
    while len(data) < size:
        part = connection.recv(size - len(data))
        if not part:
            raise EOFError
        data += part
    return data


def receive_frame(connection):
    """The next frame of the gateway. @return its first byte and its payload"""
    first, size = receive_exactly(connection, 2)
    if size == 126:
        size, = struct.unpack(">H", receive_exactly(connection, 2))
    elif size == 127:
        size, = struct.unpack(">Q", receive_exactly(connection, 8))
    return first, receive_exactly(connection, size)


def close_code(connection):
    """The code of the next frame, which closes."""
    first, payload = receive_frame(connection)
    assert first == 0x88, hex(first)
    return int.from_bytes(payload[:2], "big"), payload[2:].decode()
