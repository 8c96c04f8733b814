#!/usr/bin/env python3
"""What a phone saw of the real service leaves in each form, and the service replays it.

Usage: export_test.py PARVANE PARVANE-HOST PARVANE-WATCH
"""
import csv
import datetime
import io
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time
import xml.etree.ElementTree

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
from service import Service, check  # noqa: E402

PARVANE, HOST, WATCH = sys.argv[1:4]
TCX = "{http://www.garmin.com/xmlschemas/TrainingCenterDatabase/v2}"
LAP_EXTENSION = "{http://www.garmin.com/xmlschemas/ActivityExtension/v2}"

# The public structure of a document, as far as it is used: the attributes of an element, and its children in their
# order, each with how often it may be there; or what its text is.
UTC = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?Z")
BPM = {"children": [("Value", 1, 1)]}
STRUCTURE = {
    "TrainingCenterDatabase": {"children": [("Activities", 0, 1)]},
    "Activities": {"children": [("Activity", 0, None)]},
    "Activity": {"attributes": {"Sport": re.compile("Running|Biking|Other")},
                 "children": [("Id", 1, 1), ("Lap", 1, None), ("Notes", 0, 1)]},
    "Id": {"text": UTC},
    "Lap": {"attributes": {"StartTime": UTC},
            "children": [("TotalTimeSeconds", 1, 1), ("DistanceMeters", 1, 1), ("MaximumSpeed", 0, 1), ("Calories", 1, 1),
                         ("AverageHeartRateBpm", 0, 1), ("MaximumHeartRateBpm", 0, 1), ("Intensity", 1, 1),
                         ("Cadence", 0, 1), ("TriggerMethod", 1, 1), ("Track", 0, None), ("Notes", 0, 1),
                         ("Extensions", 0, 1)]},
    "TotalTimeSeconds": {"text": re.compile(r"\d+(\.\d+)?")},
    "DistanceMeters": {"text": re.compile(r"\d+(\.\d+)?")},
    "Calories": {"text": re.compile(r"\d{1,5}")},
    "AverageHeartRateBpm": BPM,
    "MaximumHeartRateBpm": BPM,
    "HeartRateBpm": BPM,
    "Value": {"text": re.compile("[1-9]|[1-9][0-9]|1[0-9][0-9]|2[0-4][0-9]|25[0-5]")},
    "Intensity": {"text": re.compile("Active|Resting")},
    "TriggerMethod": {"text": re.compile("Manual|Distance|Location|Time|HeartRate")},
    "Track": {"children": [("Trackpoint", 1, None)]},
    "Trackpoint": {"children": [("Time", 1, 1), ("Position", 0, 1), ("AltitudeMeters", 0, 1), ("DistanceMeters", 0, 1),
                                ("HeartRateBpm", 0, 1), ("Cadence", 0, 1), ("SensorState", 0, 1), ("Extensions", 0, 1)]},
    "Time": {"text": UTC},
}


def check_children(element, children):
    names = [child.tag.removeprefix(TCX) for child in element]
    for name, least, most in children:
        count = 0
        while names and names[0] == name:
            names.pop(0)
            count += 1
        check(count >= least and (most is None or count <= most), "%d %s in %s" % (count, name, element.tag))
    check(not names, "%s has %s out of its place" % (element.tag, names))


def check_element(element):
    check(element.tag.startswith(TCX), "the namespace of " + element.tag)
    name = element.tag.removeprefix(TCX)
    if name == "Extensions":
        check([child.tag for child in element] == [LAP_EXTENSION + "LX"], "the extension of a lap")
        check([child.tag for child in element[0]] == [LAP_EXTENSION + "Steps"], "what the extension has")
        check(0 <= int(element[0][0].text) <= 65535, "the steps of a lap")
        return
    rule = STRUCTURE.get(name)
    check(rule is not None, "an unknown element " + name)
    wanted = rule.get("attributes", {})
    check(set(element.attrib) == set(wanted), "the attributes of " + name)
    for attribute, pattern in wanted.items():
        check(pattern.fullmatch(element.attrib[attribute]), "%s of %s" % (attribute, name))
    if "text" in rule:
        check(rule["text"].fullmatch(element.text or ""), "%s is %r" % (name, element.text))
    check_children(element, rule.get("children", []))
    for child in element:
        check_element(child)


def tree(text):
    root = xml.etree.ElementTree.fromstring(text)
    check(root.tag == TCX + "TrainingCenterDatabase", root.tag)
    check_element(root)
    return root


def check_that_faults_are_found(text):
    """The check of the structure has to fail for what is none."""
    for old, new in [("<Calories>0</Calories>", ""), ("<Intensity>Active", "<Intensity>Fast"), ("Sport=", "Kind="),
                     ("<Track>", "<Notes/><Track>"), ("<Steps>25", "<Steps>-25")]:
        check(old in text, old)
        try:
            tree(text.replace(old, new, 1))
        except (AssertionError, ValueError, xml.etree.ElementTree.ParseError):
            continue
        raise AssertionError("%s instead of %s is not found" % (new, old))


def follow(service, capture, end):
    """Follows the service to a capture; `end` says of a line whether it was the last one."""
    with service.start(HOST, "--json", "--capture", str(capture), "watch", "all") as phone:
        for line in phone.stdout:
            if end(json.loads(line)):
                break
        phone.terminate()
        phone.stdout.read()
        check(phone.wait(20) == 0, "parvane-host ends with %s" % phone.returncode)


def export(form, *captures, zone="XYZ-2"):
    """As a person two hours ahead of UTC."""
    run = subprocess.run([HOST, "export", "--format", form, *map(str, captures)], env={**os.environ, "TZ": zone},
                         check=True, capture_output=True, text=True)
    check(run.stderr == "", run.stderr)
    return run.stdout


def walk_and_run(service, folder):
    """What the phone is told of somebody who walks, then runs; the captures of the phone and of the watch."""
    inner, outer = folder / "watch.pcapng", folder / "phone.pcapng"
    service.watch("set", "hr", "70")
    service.watch("set", "activity", "walking")
    changes = iter([("activity", "running"), ("hr", "150"), ("steps", "+10"), ("steps", "+15")])
    readings = []

    def end(reading):
        """Changes something whenever something is told, until the last change has been told."""
        readings.append(reading)
        if len(readings) >= 4:
            change = next(changes, None)
            if change:
                # The first one later, so that a phone is there in time when it is replayed.
                time.sleep(0.3 if change[0] != "activity" else 6)
                service.watch("set", *change)
        return any(r.get("steps") == 25 for r in readings) and any(r["sensor"] == "hr" for r in readings)

    with service.start(WATCH, "capture", str(inner)) as capture:
        while not inner.exists():
            time.sleep(0.01)
        follow(service, outer, end)
        capture.terminate()
        check(capture.wait(20) == 0, "parvane-watch ends with %s" % capture.returncode)
    return outer, inner


def check_rows(text):
    rows = list(csv.DictReader(io.StringIO(text)))
    check(rows, "an empty table")
    for row in rows:
        utc = datetime.datetime.fromisoformat(row["utc"].replace("Z", "+00:00"))
        local = datetime.datetime.fromisoformat(row["local"])
        check(utc == local and local.utcoffset() == datetime.timedelta(hours=2), row)
        check(abs(utc.timestamp() - time.time()) < 600, row)
    return rows


def without_times(text):
    return [{name: value for name, value in json.loads(line).items() if name not in ("utc", "local")}
            for line in text.splitlines()]


def replayed(folder, recording, count):
    """What a phone is told by a service that replays the recording, in the same form."""
    capture = folder / "replayed.pcapng"
    seen = []

    def end(reading):
        seen.append(reading)
        return reading.get("steps") == count

    with Service(PARVANE, WATCH, folder / "replay", PARVANE_TRACE=str(recording), PARVANE_LOOP="0") as service:
        follow(service, capture, end)
    return without_times(export("jsonl", capture))


def main():
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        with Service(PARVANE, WATCH, folder / "service", manual=True) as service:
            outer, inner = walk_and_run(service, folder)

        rows = check_rows(export("csv", outer))
        check("25" in [row["steps"] for row in rows], rows)
        check({"walking", "running"} <= {row["activity"] for row in rows}, rows)
        told = without_times(export("jsonl", outer))
        check({"sensor": "steps", "steps": 25, "exact": True} in told, told)
        check(without_times(export("jsonl", inner)) == told, "both ends of the link tell the same")

        text = export("tcx", outer)
        activity = tree(text).find(TCX + "Activities/" + TCX + "Activity")
        steps = sum(int(steps.text) for steps in activity.iter(LAP_EXTENSION + "Steps"))
        check(steps == 25, "%d steps in the training" % steps)
        check_that_faults_are_found(text)

        recording = folder / "recording.csv"
        recording.write_text(export("recording", outer), "utf-8")
        again = replayed(folder, recording, 25)
        for told_again in ({"sensor": "steps", "steps": 25, "exact": True}, {"sensor": "activity", "activity": "running"}):
            check(told_again in again, again)


if __name__ == "__main__":
    main()
