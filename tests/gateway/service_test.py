"""The watch service itself, and who is let in: by the gateway's road and directly, with the wrong user too.

Usage: service_test.py PARVANE-GATEWAY PARVANE EXAMPLE [TEST...]
"""

import contextlib
import itertools
import json
import os
import random
import re
import shutil
import signal
import socket
import sqlite3
import stat
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import websockets

PARVANE = sys.argv.pop(2)
EXAMPLE = sys.argv.pop(2)
PHONE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "kill_phone.py")

from gateway_under_test import PATIENCE_S, PROGRAM, GatewayTest, frame, receive_frame, until

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
        self.state = self.folder + "/state"
        self.begin()
        test.addCleanup(self.stop)
        until(lambda: os.path.exists(self.run + "/control.sock"), "the service")

    def begin(self, **more):
        environment = {**os.environ, "PARVANE_PLATFORM_CONF": self.folder + "/platform.conf",
                       "RUNTIME_DIRECTORY": self.run, "STATE_DIRECTORY": self.state, **more}
        with open(self.folder + "/log", "wb") as log:
            self.process = subprocess.Popen([PARVANE], env=environment, stderr=log)

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            self.process.wait(PATIENCE_S)

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


class ServedTest(GatewayTest):
    """The gateway as a user of its own, before the real service."""

    sensors = "heart_rate=manual"

    def setUp(self):
        allow = f"allow={ALLOWED}" if os.geteuid() == 0 else ""
        self.service = Service(self, f"[sensors]\n{self.sensors}\n[link]\n{allow}\n[control]\n{allow}\n")
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


class GatewayWithServiceTest(ServedTest):
    """What a phone and a viewer have of the two."""

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


class KillTest(ServedTest):
    """Gateway, service and phone, killed in every order while steps are counted: the phone is back each time, and the
    total never falls below one that it has had, nor does what is stored.

    PARVANE_KILLS rounds of three kills; PARVANE_KILL_SEED chooses other moments.
    """

    sensors = "heart_rate=manual\npedometer=manual\nactivity=manual"
    # As local time is, midnight is far: the total begins anew then.
    time_zone = {"TZ": f"TEST{(time.gmtime().tm_hour - 3) % 24 - 12:+d}"}
    # A float has whole numbers up to the double of it.
    large_total = 8_000_000

    def setUp(self):
        super().setUp()
        self.phone_process = None
        self.lines = []
        self.total = 0
        self.round = 0
        self.ends = False
        self.addCleanup(self.kill_phone)
        self.kill_service()
        self.begin_service()
        self.secret = self.token()
        self.tell_port()
        self.begin_phone()
        walker = threading.Thread(target=self.walk)
        walker.start()
        self.addCleanup(walker.join)
        self.addCleanup(setattr, self, "ends", True)

    def walk(self):
        """A step, and another one, as long as there is somebody to count them."""
        while not self.ends:
            try:
                with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as control:
                    control.settimeout(PATIENCE_S)
                    control.connect(self.service.run + "/control.sock")
                    while not self.ends:
                        control.send(b'{"request":"set","item":"steps","add":1}')
                        if not control.recv(65536):
                            break
                        time.sleep(0.003)
            except OSError:
                time.sleep(0.003)

    def tell_port(self):
        with open(self.folder + "/port.new", "w", encoding="utf-8") as file:
            file.write(str(self.port))
        os.rename(self.folder + "/port.new", self.folder + "/port")

    def begin_service(self):
        self.service.begin(**self.time_zone)

    def begin_gateway(self):
        os.truncate(self.log, 0)
        copy = self.folder + "/program"
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen([copy if os.path.exists(copy) else PROGRAM, "--config", self.file],
                                            stderr=log, **self.as_user())
        until(lambda: "serving" in self.log_text() or self.process.poll() is not None, "the start")
        self.assertIsNone(self.process.poll(), self.log_text())
        self.port = int(re.search(r" port (\d+)", self.log_text()).group(1))
        self.tell_port()

    def begin_phone(self):
        """A phone whose totals are read in a thread of its own."""
        process = subprocess.Popen([sys.executable, "-S", PHONE, self.folder + "/port", self.secret],
                                   stdout=subprocess.PIPE)

        def read(lines):
            with process.stdout:
                for line in process.stdout:
                    if line.endswith(b"\n"):
                        lines.append(tuple(map(int, line.split())))

        self.phone_process, self.lines = process, []
        threading.Thread(target=read, args=(self.lines,), daemon=True).start()

    def kill_phone(self):
        if self.phone_process:
            self.phone_process.kill()
            self.phone_process.wait(PATIENCE_S)

    def kill_gateway(self):
        self.process.kill()
        self.process.wait(PATIENCE_S)

    def kill_service(self):
        self.service.process.kill()
        self.service.process.wait(PATIENCE_S)

    def take_totals(self):
        """Looks at what the phone has had since. @return the connections that it came on"""
        connections = []
        while self.lines:
            connection, total = self.lines.pop(0)
            self.assertGreaterEqual(total, self.total, f"steps are lost in round {self.round}")
            self.total = total
            connections.append(connection)
        return connections

    def check_what_is_stored(self):
        self.take_totals()
        with tempfile.TemporaryDirectory() as copy:
            for name in os.listdir(self.service.state):
                if name.startswith("preferences.db"):
                    shutil.copy(os.path.join(self.service.state, name), copy)
            with contextlib.closing(sqlite3.connect(copy + "/preferences.db")) as database:
                self.assertEqual(database.execute("PRAGMA integrity_check").fetchone(), ("ok",))
                row = database.execute("SELECT value FROM preferences WHERE key = ?",
                                       ("Parvane/data/pedometer/value",)).fetchone()
        self.assertGreaterEqual(int(row[0].split()[0]), self.total, f"not all is stored in round {self.round}")

    def await_phone(self, first):
        """Waits for three totals on one connection that is none of those up to `first`. @return that connection"""
        seen = []

        def has_come():
            seen.extend(self.take_totals())
            return bool(seen) and seen[-1] > first and seen.count(seen[-1]) > 2

        until(has_come, "a phone that is back")
        return seen[-1]

    def kill_each(self, order, connection):
        """One after the other, each when the two others are at work again."""
        for kind in order:
            time.sleep(self.moments.random() * 0.03)
            getattr(self, "kill_" + kind)()
            if kind == "service":
                self.check_what_is_stored()
            getattr(self, "begin_" + kind)()
            connection = self.await_phone(-1 if kind == "phone" else connection)
        return connection

    def kill_all(self, order):
        """At nearly the same time."""
        for kind in order:
            time.sleep(self.moments.random() * 0.01)
            getattr(self, "kill_" + kind)()
        self.check_what_is_stored()
        for kind in order:
            getattr(self, "begin_" + kind)()
        return self.await_phone(-1)

    def test_the_phone_is_back_and_no_stored_step_is_lost(self):
        rounds = int(os.environ.get("PARVANE_KILLS", "12"))
        seed = int(os.environ.get("PARVANE_KILL_SEED", "20260131"))
        print(f"{rounds} rounds of three kills, PARVANE_KILL_SEED={seed}", flush=True)
        self.moments = random.Random(seed)
        orders = list(itertools.permutations(("gateway", "service", "phone")))
        connection = self.await_phone(-1)
        began = time.monotonic()
        for self.round in range(1, rounds + 1):
            order = orders[self.round % len(orders)]
            is_at_once = self.round // len(orders) % 2 == 1
            connection = self.kill_all(order) if is_at_once else self.kill_each(order, connection)
            if self.total > self.large_total:
                connection = self.begin_anew()
            if self.round % 100 == 0:
                print(f"{self.round} rounds, {time.monotonic() - began:.0f} s, a total of {self.total}", flush=True)

    def begin_anew(self):
        """With no steps at all."""
        self.kill_phone()
        self.kill_service()
        shutil.rmtree(self.service.state)
        self.total = 0
        self.begin_service()
        self.begin_phone()
        return self.await_phone(-1)


if __name__ == "__main__":
    unittest.main(warnings="ignore")
