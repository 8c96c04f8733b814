#!/usr/bin/env python3
"""Plays the watch of the exchanges that name examples/phone.py, as they stand: the example must send what the phone sends
there, and print the steps that have been walked.

Usage: phone_test.py EXAMPLE
"""
import pathlib
import socket
import subprocess
import sys
import tempfile

import vectors

WORDS = {1: ["still", "walking", "running", "gesture"], 4: ["no", "yes"]}
NAMES = {1: "activity", 2: "steps", 3: "heart rate", 4: "worn"}
SECONDS = 20


def told(packet, walked):
    """The name and value that the example prints of a reading, if it does."""
    sensor, value = packet["sensor"], packet["value"]
    if sensor == 2:
        value = walked
    elif sensor in WORDS:
        value = WORDS[sensor][value]
    return NAMES[sensor], None if value is None else str(value)


def expected_lines(exchange):
    shown, walked, before, lines = {"steps": "0"}, None, None, []
    for event in exchange["events"]:
        if event.get("from") != "watch" or event["packet"]["kind"] != "reading":
            continue
        walked = event.get("walked", walked)
        if before is None and "count" in event:
            before = event["count"]  # those that it prints are all since the watch began to count
        name, value = told(event["packet"], 0 if walked is None else walked + before)
        if shown.get(name) != value:
            shown[name] = value
            lines.append(name + " " + value)
    return lines


def serve(exchange, listener):
    link = None
    for event in exchange["events"]:
        if event.get("link") == "up":
            link, _ = listener.accept()
            link.settimeout(SECONDS)
        elif event.get("link") == "lost":
            link.close()
        elif event.get("from") == "phone":
            asked = link.recv(65531)
            if asked != vectors.packet(event):
                raise AssertionError("at %d ms: expected %s, came %s" % (event["at_ms"], event["bytes"], vectors.show(asked)))
        elif event.get("from") == "watch":
            link.send(vectors.packet(event))
    return link


def play(exchange):
    with tempfile.TemporaryDirectory() as folder:
        path = str(pathlib.Path(folder, "link.sock"))
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        listener.bind(path)
        listener.listen()
        listener.settimeout(SECONDS)
        with subprocess.Popen([sys.executable, sys.argv[1], path], stdout=subprocess.PIPE, text=True) as phone:
            try:
                expected = expected_lines(exchange)
                link = serve(exchange, listener)
                lines = []
                while lines[-1:] != expected[-1:] or len(lines) < len(expected):
                    line = phone.stdout.readline().rstrip("\n")
                    if not line.startswith("away: "):
                        lines.append(line)
                        if line != expected[len(lines) - 1]:
                            raise AssertionError("line %d is %r, not %r" % (len(lines), line, expected[len(lines) - 1]))
                link.close()
            finally:
                phone.kill()
        return len(expected)


def main():
    played = [exchange for exchange in vectors.exchanges() if exchange.get("phone") == "examples/phone.py"]
    for exchange in played:
        print("%s: %d lines as written" % (exchange["name"], play(exchange)))
    return len(played) < 2


if __name__ == "__main__":
    sys.exit(main())
