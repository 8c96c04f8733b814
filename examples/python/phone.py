#!/usr/bin/env python3
"""A phone in Python: phone.py list | measure | follow SECONDS. Its watch is that of this machine."""
import asyncio
import sys

import parvane


async def print_list(watch):
    for sensor in (await watch.list()).sensors:
        print(parvane.Sensor(sensor.sensor).name.lower(), "up to", sensor.largest, "every", sensor.delay)


async def measure(watch):
    reading = await watch.measure(parvane.Sensor.HEART_RATE)
    print("no reading" if reading.value is None else "%d bpm" % reading.value)


async def follow(watch):
    async for reading in watch.readings():
        if reading.day:
            print("steps: %s%d today" % ("" if reading.day.exact else "at least ", reading.day.steps), flush=True)
        else:
            print("%s: %s" % (reading.sensor.name.lower(), watch.text(reading.sensor)), flush=True)


async def main():
    command, *rest = sys.argv[1:] or [""]
    async with parvane.Watch() as watch:
        if command == "list":
            await print_list(watch)
        elif command == "measure":
            await measure(watch)
        elif command == "follow" and rest:
            try:
                await asyncio.wait_for(follow(watch), float(rest[0]))
            except asyncio.TimeoutError:
                pass
        else:
            sys.exit(__doc__)


try:
    asyncio.run(main())
except parvane.ParvaneError as error:
    sys.exit("phone.py: %s" % error)
