#!/usr/bin/env python3
"""The package parvane, and the examples in every language, with the real service.

Usage: watch_test.py PARVANE PARVANE-WATCH SOURCE PHONE...      (the source tree; the examples that are programs)
"""
import asyncio
import os
import pathlib
import re
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
import parvane  # noqa: E402
from parvane import Sensor  # noqa: E402
from service import Service, check  # noqa: E402

PARVANE, WATCH, SOURCE = sys.argv[1:4]
EXAMPLES = [[program] for program in sys.argv[4:]] + [[sys.executable, SOURCE + "/examples/python/phone.py"]]


async def lists_and_measures(path):
    events = []
    async with parvane.Watch(path) as watch:
        watch.on_event = events.append
        sensors = (await watch.list()).sensors
        check([sensor.sensor for sensor in sensors] == list(Sensor), sensors)
        check(sensors[2].largest == 200 and sensors[2].available, sensors)
        both = await asyncio.gather(watch.measure(Sensor.ACTIVITY), watch.measure(Sensor.ACTIVITY))
        check([reading.sensor for reading in both] == [Sensor.ACTIVITY] * 2, both)
        check(watch.is_linked, "it is linked")
        reading = await watch.measure(Sensor.HEART_RATE)
        check(reading.value == 72 and reading.unbroken and reading.watch_time, reading)
        check(watch.text(Sensor.HEART_RATE).startswith("72 bpm"), watch.text(Sensor.HEART_RATE))
    check(events[0].kind == parvane.EventKind.LINKED or parvane.EventKind.LIST in [event.kind for event in events], events)


async def follows_through_a_lost_link(service, path):
    """The steps of before and after it are each told once, and an app that is started anew goes on with them."""
    seen = []
    async with parvane.Watch(path) as watch:
        async for reading in watch.readings(Sensor.STEPS, Sensor.ACTIVITY):
            seen.append(reading)
            if reading.day and reading.day.steps == 0 and reading.day.exact and len(seen) > 2:
                service.watch("steps", "+10")
            elif reading.day and reading.day.steps == 10 and not watch_is_back(seen):
                service.watch("link", "down")
                service.watch("steps", "+5")
                service.watch("link", "up")
                seen.append(None)
            elif reading.day and reading.day.steps == 15:
                break
        check(reading.day.exact, reading)
        kept = watch.save_steps()
        check(watch.days()[-1].steps == 15, watch.days())
    async with parvane.Watch(path, steps=kept) as watch:
        check(watch.days()[-1].steps == 15, watch.days())
        service.watch("steps", "+7")
        async for reading in watch.readings(Sensor.STEPS):
            if reading.day.steps == 22:
                break


def watch_is_back(seen):
    return None in seen


async def says_what_goes_wrong(folder):
    async with parvane.Watch(str(folder / "nowhere.sock")) as watch:
        try:
            await watch.measure(Sensor.HEART_RATE, timeout=0.2)
            raise AssertionError("an answer of nobody")
        except parvane.ParvaneError as error:
            check(error.reason == parvane.Failure.NOT_LINKED, error.reason)
        waiting = asyncio.create_task(watch.measure(Sensor.ACTIVITY))
        reader = asyncio.create_task(all_of(watch.readings()))
        await asyncio.sleep(0.1)
        watch.close()
        check(await reader == [], "readings end when the watch is closed")
        try:
            await waiting
            raise AssertionError("an answer of a watch that is closed")
        except parvane.ParvaneError as error:
            check("closed" in str(error), error)
    parvane.Watch(zone="Europe/Zurich").close()
    for wrong in {"steps": "damaged"}, {"path": ""}, {"timeout": -1}, {"zone": "Europe/Nowhere"}:
        try:
            parvane.Watch(**wrong)
            raise AssertionError(wrong)
        except ValueError:
            pass


async def all_of(readings):
    return [reading async for reading in readings]


def example(service, command, *arguments):
    """What an example prints about the watch."""
    run = subprocess.run([*command, *arguments], env=service.environment, capture_output=True, text=True, timeout=60)
    check(run.returncode == 0, "%s %s: %s" % (command, arguments, run.stderr))
    return run.stdout


def run_example(service, command):
    check(re.search("(?m)^(hr|heart_rate).* up to 200", example(service, command, "list")), command)
    check(re.search("[1-9][0-9] bpm", example(service, command, "measure")), command)
    with subprocess.Popen([*command, "follow", "4"], env=service.environment, stdout=subprocess.PIPE, text=True) as phone:
        said = ""
        for line in phone.stdout:
            said += line
            if "steps: " in line and "steps: +" not in said:
                service.watch("steps", "+3")
                said += "steps: +3\n"
        check(phone.wait(20) == 0, command)
    check(re.search(r"activity: walking", said) and re.search("steps: [1-9][0-9]* today", said), said)


def plot_example(service, folder):
    picture = folder / "run.png"
    example(service, [sys.executable, SOURCE + "/examples/python/plot.py"], "18", str(picture))
    check(picture.read_bytes().startswith(b"\x89PNG"), "no picture")


def a_missing_library_is_explained():
    environment = dict(os.environ, PARVANE_HOST_LIBRARY="/nonexistent.so")
    done = subprocess.run([sys.executable, "-c", "import parvane"], env=environment, capture_output=True, text=True)
    check("ImportError: /nonexistent.so" in done.stderr and "libparvane-host0" in done.stderr, done.stderr)


def main():
    a_missing_library_is_explained()
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        asyncio.run(says_what_goes_wrong(folder))
        with Service(PARVANE, WATCH, folder / "service", manual=True) as service:
            path = service.environment["RUNTIME_DIRECTORY"] + "/link.sock"
            service.watch("set", "hr", "72")
            service.watch("set", "activity", "walking")
            asyncio.run(follows_through_a_lost_link(service, path))
            asyncio.run(lists_and_measures(path))
            for command in EXAMPLES:
                run_example(service, command)
            plot_example(service, folder)


if __name__ == "__main__":
    os.environ["TZ"] = "UTC"
    main()
