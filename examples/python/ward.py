#!/usr/bin/env python3
"""Keeps what parvane-hub publishes, and draws a week of it. It needs paho-mqtt and matplotlib.

ward.py keep FILE.db PORT      until it is ended
ward.py draw FILE.db FILE.png
"""
import datetime
import json
import sqlite3
import sys

TABLE = "CREATE TABLE IF NOT EXISTS readings(id TEXT PRIMARY KEY, watch TEXT, sensor TEXT, time TEXT, value)"


def keep(path, port):
    import paho.mqtt.client as mqtt

    database = sqlite3.connect(path)
    database.execute(TABLE)

    def on_message(_client, _data, message):
        sensor, reading = message.topic.split("/")[-1], message.payload and json.loads(message.payload)
        if reading:  # one that comes for the second time has the identity that it had
            row = (reading["id"], reading["watch"], sensor, reading["time"], reading["value"])
            with database:
                database.execute("INSERT OR IGNORE INTO readings VALUES (?, ?, ?, ?, ?)", row)

    client = mqtt.Client(client_id="ward", clean_session=False)  # the broker keeps what comes while it is away
    client.on_message = on_message
    client.on_connect = lambda *_: client.subscribe([(f"parvane/+/{sensor}", 1) for sensor in ("heart_rate", "steps", "worn")])
    client.connect("127.0.0.1", int(port))
    client.loop_forever()


def draw(path, picture):
    import matplotlib

    matplotlib.use("Agg")  # to a file, without a screen
    from matplotlib import pyplot

    week_ago = (datetime.datetime.utcnow() - datetime.timedelta(days=7)).isoformat()
    figure, axes = pyplot.subplots(2, sharex=True, figsize=(10, 6))
    for axis, sensor in zip(axes, ("heart_rate", "steps")):
        series = {}
        for watch, time, value in sqlite3.connect(path).execute(
                "SELECT watch, time, value FROM readings WHERE sensor = ? AND time > ? AND value IS NOT NULL ORDER BY time",
                (sensor, week_ago)):
            series.setdefault(watch, []).append((datetime.datetime.fromisoformat(time.rstrip("Z")), value))
        for watch, points in series.items():
            axis.plot(*zip(*points), marker=".", label=watch)
        axis.set_ylabel(sensor)
        if series:
            axis.legend()
    figure.autofmt_xdate()
    figure.savefig(picture)


if __name__ == "__main__":
    if len(sys.argv) != 4 or sys.argv[1] not in ("keep", "draw"):
        sys.exit(__doc__)
    (keep if sys.argv[1] == "keep" else draw)(*sys.argv[2:])
