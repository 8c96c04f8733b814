#!/usr/bin/env python3
"""Writes a capture of the vectors, as docs/capture.md describes one.

Usage: capture.py FILE      (a pcapng file with every packet of docs/vectors)
"""
import pathlib
import struct
import sys

import vectors

USER0 = 147
DIRECTIONS = {"phone": 2, "watch": 1}  # outbound, inbound


def block(kind, body):
    length = struct.pack("<I", len(body) + 12)
    return struct.pack("<I", kind) + length + body + length


def option(code, value):
    return struct.pack("<HH", code, len(value)) + value + bytes(-len(value) % 4)


def write(path, frames):
    """`frames`: who sends (None: that is not said), the time in microseconds since the epoch, and the packet's bytes."""
    content = block(0x0A0D0D0A, struct.pack("<IHHq", 0x1A2B3C4D, 1, 0, -1))
    content += block(1, struct.pack("<HHI", USER0, 0, 0) + option(2, b"link.sock") + option(0, b""))
    for sender, time, data in frames:
        options = option(2, struct.pack("<I", DIRECTIONS[sender])) + option(0, b"") if sender else b""
        content += block(6, struct.pack("<IIIII", 0, time >> 32, time & 0xFFFFFFFF, len(data), len(data))
                         + data + bytes(-len(data) % 4) + options)
    pathlib.Path(path).write_bytes(content)


def single(vector, sender):
    """The frame of a packet that belongs to no exchange, some moments after the reading that it carries."""
    packet = vector.get("packet") or {}
    seconds = vector.get("seconds", packet.get("time_ms", 1000000) / 1000)
    return sender, int(seconds * 1000000) + 250000, vectors.packet(vector)


def of_exchange(exchange):
    return [(event["from"], exchange["begins"] * 1000000 + event["at_ms"] * 1000, vectors.packet(event))
            for event in exchange["events"] if "from" in event]


def main():
    frames = []
    for name in "requests.json", "replies.json", "malformed.json":
        content = vectors.read(name)
        frames += [single(vector, content["from"]) for vector in content["vectors"]]
    for exchange in vectors.exchanges():
        frames += of_exchange(exchange)
    write(sys.argv[1], frames)


if __name__ == "__main__":
    main()
