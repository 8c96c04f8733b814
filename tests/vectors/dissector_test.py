#!/usr/bin/env python3
"""Has tshark dissect captures of the vectors, and compares what it finds with their decoded form.

Usage: dissector_test.py PARVANE.LUA      (77: there is no tshark)
"""
import datetime
import math
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

import capture
import vectors

# Members of the decoded form that the dissector has under the same name.
SAME = ("kind", "command", "flags", "sensor", "format", "time_ms", "value", "count", "position", "available", "largest",
        "resolution", "smallest", "delay_ms", "reserved")
FIELDS = ["parvane." + name for name in SAME + ("code", "address", "error", "time", "request_in", "response_in",
                                                "response_time")] + ["_ws.expert.message", "_ws.col.Info"]
EPOCH = datetime.datetime(1970, 1, 1)


def dissect_file(folder, path, script):
    """What tshark finds in each frame: its fields by their names, without those that are not there."""
    words = ["tshark", "-X", "lua_script:" + script, "-r", str(path), "-2", "-T", "fields", "-E", "separator=/t"]
    for field in FIELDS:
        words += ["-e", field]
    run = subprocess.run(words, env=dict(os.environ, HOME=folder, LC_ALL="C.UTF-8"), capture_output=True, text=True,
                         check=True)
    if "lua" in run.stderr.lower():
        raise AssertionError(run.stderr)
    return [{name: value for name, value in zip(FIELDS, line.split("\t")) if value}
            for line in run.stdout.split("\n")[:-1]]


def dissect(folder, frames):
    path = pathlib.Path(folder, "capture.pcapng")
    capture.write(path, frames)
    found = dissect_file(folder, path, sys.argv[1])
    if len(found) != len(frames):
        raise AssertionError("%d frames, but %d lines" % (len(frames), len(found)))
    return found


class Test:
    def __init__(self):
        self.compared = self.failed = 0

    def expect(self, name, what, found, expected):
        self.compared += 1
        if found != expected:
            self.failed += 1
            print("%s: %s is %r, not %r" % (name, what, found, expected))

    def packet(self, name, found, packet):
        for member in SAME:
            text = found.get("parvane." + member)
            if member == "command" and packet["kind"] != "reading":
                continue  # the kind says it
            if member == "format" and packet.get(member, 0) is None:
                self.expect(name, member, int(text) > 5, True)
                continue
            number = text if member == "kind" or text is None else float(text)
            if member == "sensor" and packet["kind"] == "list":
                number = None
            expected = packet.get(member)
            if isinstance(number, float) and expected is not None and math.isclose(number, expected, rel_tol=1e-14):
                number = expected  # printed with 15 digits
            self.expect(name, member, number, expected)
        if "code" in packet:
            self.expect(name, "code", found["parvane.code"], str(int(packet["code"])))
        if "address" in packet:
            self.expect(name, "address", found["parvane.address"].upper(), packet["address"] or "00:00:00:00:00:00")
        self.expect(name, "error", found.get("parvane.error"), None)

    def vector(self, found, vector):
        name = vector["name"]
        expert = found.get("_ws.expert.message", "")
        if "error" in vector:
            text = "%(field)s (offset %(offset)d): expected %(expected)s, found %(found)s" % vector["error"]
            self.expect(name, "error", found.get("parvane.error"), text)
            self.expect(name, "expert warning", expert, text)
            return
        self.expect(name, "being dropped", expert.startswith("The watch drops this request: "), "dropped" in vector)
        if vector["packet"] is None:
            self.expect(name, "kind", found.get("parvane.kind"), None)
            return
        self.packet(name, found, vector["packet"])
        if vector.get("seconds"):
            self.expect(name, "time", parse_time(found["parvane.time"]), vector["seconds"])

    def exchange(self, found, exchange):
        events = [event for event in exchange["events"] if "from" in event]
        frame_of = {exchange["events"].index(event): number for number, event in enumerate(events, 1)}
        answered = {}
        for number, event in enumerate(events, 1):
            if "answers" in event:
                answered.setdefault(frame_of[event["answers"]], number)
        for number, (event, fields) in enumerate(zip(events, found), 1):
            name = "%s, frame %d" % (exchange["name"], number)
            if event["packet"] is not None:
                self.packet(name, fields, event["packet"])
            request = exchange["events"][event["answers"]] if "answers" in event else None
            self.expect(name, "request", fields.get("parvane.request_in"), request and str(frame_of[event["answers"]]))
            self.expect(name, "response", fields.get("parvane.response_in"), answered.get(number) and str(answered[number]))
            taken = fields.get("parvane.response_time")
            self.expect(name, "response time in ms", taken and round(float(taken) * 1000),
                        request and event["at_ms"] - request["at_ms"])


def parse_time(text):
    """Seconds since the epoch of "May 13, 2014 16:53:20.000000000 UTC"."""
    whole, fraction = text.removesuffix(" UTC").split(".")
    return (datetime.datetime.strptime(whole, "%b %d, %Y %H:%M:%S") - EPOCH).total_seconds() + float("0." + fraction)


def main():
    if shutil.which("tshark") is None:
        print("skipped: there is no tshark on this machine")
        return 77
    test = Test()
    with tempfile.TemporaryDirectory() as folder:
        for name in "requests.json", "replies.json", "malformed.json":
            content = vectors.read(name)
            frames = [capture.single(vector, content["from"]) for vector in content["vectors"]]
            for found, vector in zip(dissect(folder, frames), content["vectors"]):
                test.vector(found, vector)
        for exchange in vectors.exchanges():
            test.exchange(dissect(folder, capture.of_exchange(exchange)), exchange)
        unknown = dissect(folder, [(None, 0, b"\x14\x02\x00\x03")])[0]
        test.expect("no direction", "expert warning", unknown.get("_ws.expert.message"),
                    "The capture does not say who sent this")
        test.expect("no direction", "kind", unknown.get("parvane.kind"), None)
    print("%d values compared, %d differ" % (test.compared, test.failed))
    return test.failed > 0 or test.compared < 3000


if __name__ == "__main__":
    sys.exit(main())
