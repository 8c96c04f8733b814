"""A phone on a WebSocket that never gives up: it asks for steps, keeps the watch busy, and comes back whatever ends it.

Usage: kill_phone.py PORT-FILE TOKEN    a line "CONNECTION TOTAL" for each total of steps that has come

The file says which port the gateway has now.
"""

import os
import random
import socket
import struct
import sys
import time

KEY = "dGhlIHNhbXBsZSBub25jZQ=="
STEPS = bytes.fromhex("02000002")
# The list, activity, heart rate, activity from now on, no more of it.
LOAD = [bytes.fromhex(text) for text in ("01000000", "02000001", "02000003", "0300000100", "04000001")]
IN_FLIGHT = 16


def frame(payload):
    return bytes([0x82, 0x80 | len(payload)]) + b"\0\0\0\0" + payload


def connect():
    with open(sys.argv[1], encoding="utf-8") as file:
        port = int(file.read())
    link = socket.create_connection(("127.0.0.1", port), 20)
    link.sendall(f"GET /link HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                 f"Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: {KEY}\r\nSec-WebSocket-Protocol: parvane.link.v1\r\n"
                 f"Authorization: Bearer {sys.argv[2]}\r\n\r\n".encode())
    return link, link.makefile("rb")


def serve(connection):
    link, stream = connect()
    with link, stream:
        if b" 101 " not in stream.readline():
            return
        while stream.readline() not in (b"\r\n", b""):
            pass
        link.sendall(frame(STEPS) + frame(STEPS) + b"".join(map(frame, random.choices(LOAD, k=IN_FLIGHT))))
        while len(head := stream.read(2)) == 2 and head[0] == 0x82:
            packet = stream.read(head[1])
            if len(packet) == 18 and packet[3] == 2:
                os.write(1, f"{connection} {int(struct.unpack('>f', packet[13:17])[0])}\n".encode())
            link.sendall(frame(random.choice(LOAD)))


for connection in range(1 << 30):
    try:
        serve(connection)
    except (OSError, ValueError):
        pass
    time.sleep(0.01)
