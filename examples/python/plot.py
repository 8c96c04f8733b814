#!/usr/bin/env python3
"""Follows a run, and plots its heart rate and steps: plot.py SECONDS FILE.png. It needs matplotlib."""
import asyncio
import sys

import matplotlib
import parvane

matplotlib.use("Agg")  # to a file, without a screen
from matplotlib import pyplot  # noqa: E402


async def follow(seconds):
    """The times and values of heart rate and steps."""
    series = {parvane.Sensor.HEART_RATE: ([], []), parvane.Sensor.STEPS: ([], [])}

    async def collect(watch):
        async for reading in watch.readings(*series):
            value = reading.day.steps if reading.day else reading.value
            if value is not None:
                times, values = series[reading.sensor]
                times.append(reading.at)
                values.append(value)

    async with parvane.Watch() as watch:
        try:
            await asyncio.wait_for(collect(watch), seconds)
        except asyncio.TimeoutError:
            pass
    return series


def plot(series, path):
    figure, rates = pyplot.subplots(figsize=(10, 5))
    rates.plot(*series[parvane.Sensor.HEART_RATE], color="tab:red", marker=".")
    rates.set_ylabel("beats per minute", color="tab:red")
    steps = rates.twinx()
    steps.step(*series[parvane.Sensor.STEPS], color="tab:blue", where="post")
    steps.set_ylabel("steps", color="tab:blue")
    figure.autofmt_xdate()
    figure.savefig(path)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    plot(asyncio.run(follow(float(sys.argv[1]))), sys.argv[2])
