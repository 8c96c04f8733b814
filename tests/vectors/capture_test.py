#!/usr/bin/env python3
"""What parvane-host captures is what tshark then shows: the list of sensors, from a watch that sends it as the vectors have it.

Usage: capture_test.py PARVANE.LUA PARVANE-HOST      (77: there is no tshark)
"""
import pathlib
import shutil
import socket
import subprocess
import sys
import tempfile

import vectors
from dissector_test import dissect_file


def list_sensors(folder, events):
    """Runs the command with a watch that answers as in `events`; returns the path of the capture."""
    path = str(pathlib.Path(folder, "link.sock"))
    file = pathlib.Path(folder, "link.pcapng")
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    listener.bind(path)
    listener.listen()
    listener.settimeout(20)
    with subprocess.Popen([sys.argv[2], "--socket", path, "--capture", str(file), "list"],
                          stdout=subprocess.DEVNULL) as phone:
        link, _ = listener.accept()
        flags = link.recv(65531)[0] & 0x30
        for event in events:
            if event.get("from") == "watch":
                data = vectors.packet(event)
                link.send(bytes([data[0] & ~0x30 | flags]) + data[1:])
        if phone.wait(20) != 0:
            raise AssertionError("parvane-host ends with %d" % phone.returncode)
    return file


def main():
    if shutil.which("tshark") is None:
        print("skipped: there is no tshark on this machine")
        return 77
    events = next(e["events"] for e in vectors.exchanges() if e["name"] == "the sensors are listed")
    with tempfile.TemporaryDirectory() as folder:
        found = dissect_file(folder, list_sensors(folder, events), sys.argv[1])
    shown = [(fields.get("parvane.kind"), fields.get("parvane.request_in"), "parvane.error" in fields) for fields in found]
    expected = [(event["packet"]["kind"], "1" if "answers" in event else None, False) for event in events if "from" in event]
    if shown != expected:
        print("%r\nis not\n%r" % (shown, expected))
    return shown != expected


if __name__ == "__main__":
    sys.exit(main())
