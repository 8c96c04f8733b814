"""A hub in a folder of its own, with a real broker and watches that the test plays. Run by /usr/bin/python3."""

import collections
import json
import os
import pathlib
import random
import selectors
import shutil
import signal
import socket
import sqlite3
import struct
import subprocess
import tempfile
import threading
import time
import unittest

import paho.mqtt.client as mqtt

PROGRAM = os.environ["PARVANE_HUB_PROGRAM"]
BROKER = shutil.which("mosquitto", path=os.environ["PATH"] + ":/usr/sbin")
PATIENCE_S = 120
ACTIVITY, STEPS, HEART_RATE, WORN = 1, 2, 3, 4
MEASURE, START, STOP = 2, 3, 4


def until(condition, what):
    """Waits until the condition is true; a busy machine has two minutes."""
    end = time.monotonic() + PATIENCE_S
    while time.monotonic() < end:
        value = condition()
        if value:
            return value
        time.sleep(0.01)
    raise AssertionError(f"not within two minutes: {what() if callable(what) else what}")


def free_port():
    """One that stays free while the broker is away: none of those that the system gives to clients."""
    while True:
        port = random.randrange(10000, 32000)
        with socket.socket() as probe:
            try:
                probe.bind(("127.0.0.1", port))
                return port
            except OSError:
                pass


def reading(sensor, value, command=MEASURE, flags=1):
    """A packet of a watch whose clock is right."""
    now = int(time.time()) * 1000
    return struct.pack(">BBBBBQfB", command | flags << 4, 0, 14, sensor, 17, now, value, 0)


class Watches:
    """Watch services on Unix sockets, all in one thread: each answers its host, and sends what the test gives it."""

    def __init__(self, folder):
        self.folder = folder
        self.selector = selectors.DefaultSelector()
        self.hosts = {}
        self.values = {HEART_RATE: 70.0, WORN: 1.0, STEPS: 0.0, ACTIVITY: 0.0}
        self.count = 0  # of the pedometer, which a watch adds to its total at each reading
        self.asked = []  # (time, name, command, sensor)
        self.lock = threading.Lock()
        self.is_over = False
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def add(self, name):
        path = os.path.join(self.folder, name + ".sock")
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        listener.bind(path)
        listener.listen(4)
        listener.setblocking(False)
        self.selector.register(listener, selectors.EVENT_READ, name)
        return "unix:" + path

    def serve(self):
        while not self.is_over:
            for key, _ in self.selector.select(0.1):
                try:
                    self.look(key)
                except OSError:
                    self.forget(key.fileobj, key.data)

    def look(self, key):
        if key.fileobj.getsockopt(socket.SOL_SOCKET, socket.SO_ACCEPTCONN):
            host, _ = key.fileobj.accept()
            host.setblocking(False)
            with self.lock:
                self.hosts[key.data] = host
            self.selector.register(host, selectors.EVENT_READ, key.data)
            return
        packet = key.fileobj.recv(65536)
        if packet:
            self.answer(key.fileobj, key.data, packet)
        else:
            self.forget(key.fileobj, key.data)

    def forget(self, host, name):
        self.selector.unregister(host)
        host.close()
        with self.lock:
            if self.hosts.get(name) is host:
                del self.hosts[name]

    def answer(self, host, name, packet):
        command, flags, sensor = packet[0] & 15, packet[0] >> 4 & 3, packet[3]
        self.asked.append((time.monotonic(), name, command, sensor))
        if command == STOP:
            host.send(bytes([STOP | flags << 4, 2, 2, sensor]))
        elif command in (MEASURE, START):
            if sensor == STEPS:
                self.values[STEPS] += self.count
            host.send(reading(sensor, self.values[sensor], command, flags))

    def send(self, name, packet):
        """A packet, unasked; waits for room. False when there is no host."""
        end = time.monotonic() + PATIENCE_S
        while time.monotonic() < end:
            with self.lock:
                host = self.hosts.get(name)
            if host is None:
                return False
            try:
                host.send(packet)
                return True
            except BlockingIOError:
                time.sleep(0.001)
            except OSError:
                return False
        raise AssertionError("the hub does not read " + name)

    def walk(self, name, steps):
        self.count += steps
        self.values[STEPS] += self.count
        self.send(name, reading(STEPS, self.values[STEPS]))

    def drop(self, name):
        """Ends the link, as when the watch's service restarts."""
        with self.lock:
            self.hosts[name].shutdown(socket.SHUT_RDWR)

    def close(self):
        self.is_over = True
        self.thread.join(PATIENCE_S)
        for key in list(self.selector.get_map().values()):
            key.fileobj.close()
        self.selector.close()


class Broker:
    """mosquitto, on a port of its own that stays the same when it is started again."""

    def __init__(self, folder, configuration=""):
        self.folder = folder
        self.configuration = configuration
        self.port = free_port()
        self.process = None

    def start(self):
        text = self.configuration or f"listener {self.port} 127.0.0.1\nallow_anonymous true\n"
        file = os.path.join(self.folder, "mosquitto.conf")
        with open(file, "w", encoding="utf-8") as stream:
            stream.write(text.replace("PORT", str(self.port)) + "max_queued_messages 0\n")
        with open(os.path.join(self.folder, "mosquitto.log"), "ab") as log:
            self.process = subprocess.Popen([BROKER, "-c", file], stdout=log, stderr=log)
        until(self.answers, "the broker answers")

    def answers(self):
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", self.port)) == 0

    def stop(self, number=signal.SIGTERM):
        if self.process:
            self.process.send_signal(number)
            self.process.wait(PATIENCE_S)
            self.process = None


class Subscriber:
    """A foreign reader: keeps all messages that come, with a session that the broker keeps as well."""

    def __init__(self, port, topic="parvane/#", name="reader"):
        self.messages = []
        self.seen = threading.Event()
        self.client = mqtt.Client(client_id=name, clean_session=False)
        self.client.on_message = lambda client, data, message: self.messages.append(message)
        self.client.on_connect = lambda client, *_: client.subscribe(topic, 1)
        self.client.on_subscribe = lambda *_: self.seen.set()
        self.client.reconnect_delay_set(1, 1)
        self.client.connect("127.0.0.1", port)
        self.client.loop_start()
        if not self.seen.wait(PATIENCE_S):
            raise AssertionError("no subscription within two minutes")

    def on(self, topic):
        return [message for message in list(self.messages) if message.topic == topic]

    def readings(self, topic=None):
        """Payloads of readings, the first of each identity."""
        first = {}
        for message in list(self.messages):
            if message.payload.startswith(b'{"id"') and (topic is None or message.topic == topic):
                body = json.loads(message.payload)
                first.setdefault(body["id"], body)
        return list(first.values())

    def close(self):
        self.client.loop_stop()
        self.client.disconnect()


class HubTest(unittest.TestCase):
    broker_configuration = ""
    broker_keys = ""

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="parvane-hub-")
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        for name in ("state", "run"):
            os.mkdir(os.path.join(self.folder, name), 0o700)
        self.file = os.path.join(self.folder, "hub.conf")
        self.log = os.path.join(self.folder, "log")
        self.process = None
        self.prefix = []
        self.watches = Watches(self.folder)
        self.addCleanup(self.watches.close)
        self.broker = Broker(self.folder, self.broker_configuration)
        self.addCleanup(self.broker.stop)

    def configure(self, names, wishes="heart_rate=no\n", more=""):
        """Watches that are there already keep their sockets."""
        text = (f"[broker]\nport={self.broker.port}\n{self.broker_keys}\n[metrics]\nlisten=127.0.0.1:0\n"
                f"[directories]\nstate={self.folder}/state\nruntime={self.folder}/run\n{more}\n[watches]\n{wishes}")
        for name in names:
            path = os.path.join(self.folder, name + ".sock")
            link = "unix:" + path if os.path.exists(path) else self.watches.add(name)
            text += f"[watch {name}]\nlink={link}\n"
        pathlib.Path(self.file).write_text(text, "utf-8")

    def start(self, watches=None):
        """@param watches  so many are linked before this returns; None: it is not waited for"""
        with open(self.log, "ab") as log:
            begin = log.tell()
            self.process = subprocess.Popen([*self.prefix, PROGRAM, "--config", self.file], stderr=log,
                                            env={**os.environ, "TZ": "UTC"})
        self.addCleanup(self.end, self.process)
        until(lambda: "serving" in self.log_text()[begin:] or self.process.poll() is not None, "the start")
        self.assertIsNone(self.process.poll(), self.log_text())
        if watches is not None:
            until(lambda: self.status()["linked"] == watches, lambda: f"{watches} links: {self.status()}")

    def end(self, process):
        if process.poll() is None:
            process.send_signal(signal.SIGTERM)
            self.assertEqual(process.wait(PATIENCE_S), 0, self.log_text())

    def stop(self):
        self.end(self.process)

    def kill(self):
        self.process.kill()
        self.process.wait(PATIENCE_S)

    def log_text(self):
        return pathlib.Path(self.log).read_text("utf-8", "replace")

    def run_command(self, *arguments):
        return subprocess.run([PROGRAM, "--config", self.file, *arguments], capture_output=True, text=True,
                              timeout=PATIENCE_S)

    def status(self):
        done = self.run_command("status", "--json")
        self.assertEqual(done.returncode, 0, done.stderr)
        return json.loads(done.stdout)

    def stored(self):
        """Identities of what is in the queue, in order; of a hub that does not run."""
        with sqlite3.connect(f"file:{self.folder}/state/queue.db?mode=ro", uri=True) as database:
            rows = database.execute("SELECT body FROM messages WHERE body LIKE '{%' ORDER BY place")
            return [json.loads(body)["id"] for (body,) in rows]

    def subscribe(self, topic="parvane/#"):
        subscriber = Subscriber(self.broker.port, topic)
        self.addCleanup(subscriber.close)
        return subscriber

    def begin_to_read(self):
        """A broker with a subscriber, for a hub that runs already: it is held until the subscription is there."""
        self.process.send_signal(signal.SIGSTOP)
        try:
            self.broker.start()
            return self.subscribe()
        finally:
            self.process.send_signal(signal.SIGCONT)

    def assert_in_order(self, subscriber, names, expected):
        """The heart rates of each watch are `expected`, in that order, each once by its identity."""
        got = collections.defaultdict(list)
        for body in subscriber.readings():
            got[body["watch"]].append(body["value"])
        for name in names:
            self.assertEqual(got[name], expected, f"of {name}")


def main():
    unittest.main(verbosity=2)
