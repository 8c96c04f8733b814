#!/usr/bin/env python3
"""Plays the exchanges of docs/vectors with the real service: what they say happens and what the phone sends, each at its
time, and what the watch sends must come.

Usage: service_test.py PARVANE PARVANE-WATCH
"""
import concurrent.futures
import os
import pathlib
import select
import socket
import subprocess
import sys
import tempfile
import time

import vectors

NOT_PLAYED = {
    "midnight": "the clock of the service is that of the machine",
    "pushes are lost unread": "how many wait unread depends on the machine",
}
CONFIGURATION = "[sensors]\nheart_rate=manual\npedometer=manual\nactivity=manual\n"
LATE = 2.5  # seconds that a loaded machine may take


class Watch:
    """A service of its own, and a phone's link to it."""

    def __init__(self, folder):
        self.run = pathlib.Path(folder, "run")
        configuration = pathlib.Path(folder, "platform.conf")
        configuration.write_text(CONFIGURATION)
        self.environment = dict(
            os.environ, STATE_DIRECTORY=folder + "/state", RUNTIME_DIRECTORY=str(self.run),
            PARVANE_PLATFORM_CONF=str(configuration), PARVANE_BT_ADDRESS="AA:BB:CC:DD:EE:0F", TZ="UTC")
        self.link = self.service = None
        self.start()

    def start(self):
        self.service = subprocess.Popen([sys.argv[1]], env=self.environment, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        self.until(lambda: self.tells("status") == 0)

    def stop(self):
        self.service.terminate()
        if self.service.wait(10) != 0:
            raise AssertionError("the service ended with %d" % self.service.returncode)

    def tells(self, *words):
        return subprocess.run([sys.argv[2], *words], env=self.environment, capture_output=True, check=False).returncode

    def happens(self, words):
        if words == "restart":
            self.stop()
            self.start()
        elif self.tells(*words.split()) != 0:
            raise AssertionError("parvane-watch " + words + " failed")

    def connect(self):
        self.link = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.link.connect(str(self.run / "link.sock"))

    def receive(self, seconds):
        """The next packet; empty at the end of the link, None when nothing comes."""
        return self.link.recv(65531) if select.select([self.link], [], [], max(seconds, 0))[0] else None

    @staticmethod
    def until(condition):
        end = time.monotonic() + 10
        while not condition():
            if time.monotonic() > end:
                raise AssertionError("the service does not start")
            time.sleep(0.02)


def meaning(data):
    """A packet without its undefined bytes and without its time."""
    return data[:5] + data[13:17] if len(data) == 18 else data


def check_reply(event, data, begun):
    expected = vectors.packet(event)
    if data is None or meaning(data) != meaning(expected):
        raise AssertionError("at %d ms: expected %s, came %s" % (event["at_ms"], vectors.show(expected), vectors.show(data)))
    if abs(time.monotonic() - begun - event["at_ms"] / 1000) > LATE:
        raise AssertionError("at %d ms: %s came after %.1f s" % (event["at_ms"], vectors.show(data), time.monotonic() - begun))
    if len(data) == 18:
        off = (int.from_bytes(data[9:13], "big") - int(time.time() * 1000) + 2**31) % 2**32 - 2**31
        if abs(off) > 1000 * LATE:
            raise AssertionError("at %d ms: the time of %s is off by %d ms" % (event["at_ms"], vectors.show(data), off))


def play(exchange):
    with tempfile.TemporaryDirectory() as folder:
        watch = Watch(folder)
        begun = time.monotonic()
        for event in exchange["events"]:
            due = begun + event["at_ms"] / 1000
            if event.get("from") == "watch":
                check_reply(event, watch.receive(due + LATE - time.monotonic()), begun)
                continue
            time.sleep(max(due - time.monotonic(), 0))
            if event.get("from") == "phone":
                watch.link.send(vectors.packet(event))
            elif event.get("link") == "up":
                watch.connect()
            elif event.get("link") == "lost":
                if (data := watch.receive(LATE)) != b"":
                    raise AssertionError("at %d ms: the link should end, came %s" % (event["at_ms"], vectors.show(data)))
            else:
                watch.happens(event["happens"])
        if (data := watch.receive(0.3)) is not None:
            raise AssertionError("at the end: came " + vectors.show(data))
        watch.stop()


def main():
    played = [exchange for exchange in vectors.exchanges() if exchange["name"] not in NOT_PLAYED]
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(len(played)) as players:
        plays = {exchange["name"]: players.submit(play, exchange) for exchange in played}
        for name, outcome in plays.items():
            error = outcome.exception()
            failed += error is not None
            print("%s: %s" % (name, "as written" if error is None else repr(error)))
    for name, reason in NOT_PLAYED.items():
        print("%s: not played, %s" % (name, reason))
    return failed


if __name__ == "__main__":
    sys.exit(main())
