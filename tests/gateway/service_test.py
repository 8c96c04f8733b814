"""The watch service itself, and who is let in: by the gateway's road and directly, with the wrong user too.

Usage: service_test.py PARVANE-GATEWAY PARVANE EXAMPLE [TEST...]
"""

import json
import os
import shutil
import signal
import socket
import stat
import subprocess
import sys
import tempfile
import unittest

import websockets

PARVANE = sys.argv.pop(2)
EXAMPLE = sys.argv.pop(2)

from gateway_under_test import PATIENCE_S, GatewayTest, frame, receive_frame, until

ALLOWED, OTHER = 61001, 61002

# Asks for the sensor list, or the status, as another user, and prints how many bytes came.
CLIENT = """
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
s.settimeout(60)
try:
    s.connect(sys.argv[1])
    s.send(bytes.fromhex(sys.argv[2]))
    print(len(s.recv(65536)))
except (PermissionError, ConnectionResetError, BrokenPipeError) as error:
    print(type(error).__name__)
"""
LIST = "01000000"
STATUS = b'{"request":"status"}'.hex()


class Service:
    """The real service in a folder, its configuration given."""

    def __init__(self, test, configuration):
        self.folder = tempfile.mkdtemp(prefix="parvane-service-")
        test.addCleanup(shutil.rmtree, self.folder)
        os.chmod(self.folder, 0o755)
        with open(self.folder + "/platform.conf", "w", encoding="utf-8") as file:
            file.write(configuration)
        self.run = self.folder + "/run"
        environment = {**os.environ, "PARVANE_PLATFORM_CONF": self.folder + "/platform.conf",
                       "RUNTIME_DIRECTORY": self.run, "STATE_DIRECTORY": self.folder + "/state"}
        self.log = open(self.folder + "/log", "wb")
        self.process = subprocess.Popen([PARVANE], env=environment, stderr=self.log)
        test.addCleanup(self.stop)
        until(lambda: os.path.exists(self.run + "/control.sock"), "the service")

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            self.process.wait(PATIENCE_S)
        self.log.close()

    def ask(self, name, request, user):
        return subprocess.run(["/usr/bin/python3", "-c", CLIENT, f"{self.run}/{name}", request], user=user, group=user,
                              extra_groups=[], check=True, stdout=subprocess.PIPE).stdout.decode().strip()

    def mode(self, name=""):
        return stat.S_IMODE(os.stat(f"{self.run}/{name}").st_mode)


@unittest.skipUnless(os.geteuid() == 0, "takes root")
class AllowTest(unittest.TestCase):
    """[link] allow= and [control] allow=."""

    def test_without_a_word_nobody_else_is_served(self):
        service = Service(self, "")
        self.assertEqual([service.mode(), service.mode("link.sock"), service.mode("control.sock")],
                         [0o700, 0o600, 0o600])
        self.assertEqual(service.ask("link.sock", LIST, ALLOWED), "PermissionError")
        # The mode is not what counts.
        for name in ("", "link.sock", "control.sock"):
            os.chmod(f"{service.run}/{name}", 0o777)
        for name, request in (("link.sock", LIST), ("control.sock", STATUS)):
            self.assertIn(service.ask(name, request, ALLOWED), ("0", "ConnectionResetError", "BrokenPipeError"))

    def test_one_user_is_let_to_the_link(self):
        service = Service(self, f"[link]\nallow={ALLOWED}\n")
        self.assertEqual([service.mode(), service.mode("link.sock"), service.mode("control.sock")],
                         [0o711, 0o666, 0o600])
        self.assertEqual(service.ask("link.sock", LIST, ALLOWED), "13")
        self.assertIn(service.ask("link.sock", LIST, OTHER), ("0", "ConnectionResetError", "BrokenPipeError"))
        self.assertEqual(service.ask("control.sock", STATUS, ALLOWED), "PermissionError")
        self.assertEqual(service.ask("link.sock", LIST, 0), "13")
        for folder, _, files in os.walk(service.run):
            for name in files:
                if name != "link.sock":
                    self.assertEqual(stat.S_IMODE(os.stat(os.path.join(folder, name)).st_mode), 0o600, name)

    def test_one_user_is_let_to_the_control_socket(self):
        service = Service(self, f"[control]\nallow={ALLOWED}\n")
        self.assertEqual([service.mode("link.sock"), service.mode("control.sock")], [0o600, 0o666])
        self.assertGreater(int(service.ask("control.sock", STATUS, ALLOWED)), 100)
        self.assertIn(service.ask("control.sock", STATUS, OTHER), ("0", "ConnectionResetError", "BrokenPipeError"))

    def test_a_user_who_does_not_exist_and_nobody_are_not_let_in(self):
        for name in ("no-such-user", "nobody", "65534"):
            service = Service(self, f"[link]\nallow={name}\n")
            self.assertEqual(service.mode("link.sock"), 0o600)
            with open(service.folder + "/log", encoding="utf-8") as log:
                self.assertIn(f"nobody else is let in: there is no user '{name}'", log.read())


class GatewayWithServiceTest(GatewayTest):
    """The gateway as a user of its own, before the real service."""

    def setUp(self):
        allow = f"allow={ALLOWED}" if os.geteuid() == 0 else ""
        self.service = Service(self, f"[sensors]\nheart_rate=manual\n[link]\n{allow}\n[control]\n{allow}\n")
        super().setUp()

    def configure(self, web):
        super().configure(web)
        with open(self.file, encoding="utf-8") as file:
            text = file.read().replace(f"directory={self.folder}/watch", "directory=" + self.service.run)
        with open(self.file, "w", encoding="utf-8") as file:
            file.write(text)

    def as_user(self):
        if os.geteuid() != 0:
            return {}
        os.chmod(self.folder, 0o755)
        for name in ("state", "run"):
            os.chown(os.path.join(self.folder, name), ALLOWED, ALLOWED)
        return {"user": ALLOWED, "group": ALLOWED, "extra_groups": []}

    def test_a_phone_lists_the_sensors(self):
        phone = self.phone(self.token())
        phone.sendall(frame(bytes.fromhex(LIST)))
        first, header = receive_frame(phone)
        self.assertEqual((first, header[0] & 0x8F, len(header)), (0x82, 0x81, 13))
        for _ in range(4):
            self.assertEqual(len(receive_frame(phone)[1]), 25)

    def control(self, scope):
        secret = self.token(scope, "--scope", scope)
        status, connection = self.upgrade("Authorization: Bearer " + secret, path="/control",
                                          protocol="parvane.control.v1")
        self.assertEqual(status, 101)
        return connection

    def ask(self, connection, request):
        connection.sendall(frame(request if isinstance(request, bytes) else json.dumps(request).encode(), 0x81))
        first, reply = receive_frame(connection)
        self.assertEqual(first, 0x81)
        return json.loads(reply)

    def test_a_viewer_looks_and_does_not_touch(self):
        view = self.control("view")
        self.assertEqual(self.ask(view, {"request": "ping"}), {"ok": True, "pong": True, "version": 1})
        self.assertEqual(self.ask(view, {"request": "status", "version": 1})["status"]["service"]["user"], os.geteuid())
        self.assertTrue(self.ask(view, {"request": "config"})["ok"])
        self.assertEqual(self.ask(view, {"request": "replay"})["error"]["code"], "not-replay")  # so it is passed on
        for request in ({"request": "set", "item": "heart_rate", "value": 72}, {"request": "quit"},
                        {"request": "replay", "action": "pause"},
                        {"request": "link", "state": "down"}, {"request": "log", "level": "error"},
                        {"request": "record", "on": ["heart_rate"]}, {"request": 1}, {},
                        b'{"request":"status","request":"quit"}'):
            self.assertEqual(self.ask(view, request)["error"]["code"], "not-allowed", request)
        for bad in (b"", b"[]", b"quit", b"[" * 8000):
            self.assertEqual(self.ask(view, bad)["error"]["code"], "bad-message")
        self.assertEqual(self.upgrade(f"Authorization: Bearer {self.secrets[-1]}")[0], 403)

    def test_control_steers_and_streams(self):
        control, observer = self.control("control"), self.control("view")
        self.assertTrue(self.ask(observer, {"request": "observe"})["ok"])
        self.assertTrue(self.ask(control, {"request": "link", "state": "down"})["ok"])
        self.assertEqual(json.loads(receive_frame(observer)[1])["event"], "link")
        self.assertTrue(self.ask(control, {"request": "quit"})["ok"])
        messages = []
        while (message := receive_frame(observer))[0] == 0x81:
            messages.append(message[1])
        self.assertEqual(json.loads(messages[-1]), {"end": "service-ended"})
        self.assertEqual(message, (0x88, (4503).to_bytes(2, "big") + b"the watch is away"))

    def test_the_example_is_a_phone(self):
        secret = self.token()
        fingerprint = self.status()["roads"]["web"]["fingerprint"]
        for arguments in ([f"ws://127.0.0.1:{self.port}/link"], [f"wss://127.0.0.1:{self.port}/link", fingerprint]):
            phone = subprocess.Popen(["/usr/bin/python3", EXAMPLE, *arguments], stdout=subprocess.PIPE,
                                     env={**os.environ, "PARVANE_TOKEN": secret})
            lines = sorted(phone.stdout.readline().decode().strip() for _ in range(5))
            phone.terminate()
            phone.wait(PATIENCE_S)
            phone.stdout.close()
            self.assertEqual(lines, ["activity 0.0", "sensor activity", "sensor heart rate", "sensor steps",
                                     "sensor worn"])
            until(lambda: self.status()["phone"] is None, "the end of the phone")
        wrong = subprocess.run(["/usr/bin/python3", EXAMPLE, arguments[0], "00" * 32], stderr=subprocess.PIPE,
                               env={**os.environ, "PARVANE_TOKEN": secret})
        self.assertIn(b"the certificate is not the watch's", wrong.stderr)

    def test_the_service_comes_back(self):
        secret = self.token()
        phone = self.phone(secret)
        self.service.stop()
        self.assertEqual(receive_frame(phone)[1][:2], (4503).to_bytes(2, "big"))


if __name__ == "__main__":
    unittest.main(warnings="ignore")
