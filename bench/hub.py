#!/usr/bin/python3
"""What a watch costs the hub: real watch services with replayed recordings, one hub, one broker, one subscriber.

Usage: hub.py PARVANE HUB TREE [--quick] [--markdown]

With each number of watches it tells the hub's processor time for each watch and each reading, its memory for
each watch, and how long a reading takes from a watch's socket to a subscriber; and it holds that every reading has arrived once,
and in order for each watch. Exit status: 0 when that and the budgets are kept, else 3.
"""

import json
import os
import pathlib
import re
import resource
import shutil
import subprocess
import sys
import tempfile
import time

PARVANE, HUB, TREE = map(os.path.abspath, sys.argv[1:4])
QUICK, MARKDOWN = "--quick" in sys.argv, "--markdown" in sys.argv  # other options are of the other table
os.environ["PARVANE_HUB_PROGRAM"] = HUB
sys.path.insert(0, os.path.join(TREE, "tests", "hub"))
from hub_under_test import HEART_RATE, Broker, Subscriber, Watches, reading, until  # noqa: E402

NUMBERS = (10, 25) if QUICK else (50, 100, 250, 500)
SECONDS = 10 if QUICK else 40
MEMORY_KIB, DELAY_MS, GROWTH = 25, 50, 1.5  # the budgets; growth is of the processor time for each reading


class Ward:
    """So many watch services, and one that this process plays, whose readings tell the delay."""

    def __init__(self, folder, number):
        self.folder, self.processes, self.probe = folder, [], Watches(folder)
        self.broker = Broker(folder)
        self.broker.start()
        self.subscriber = Subscriber(self.broker.port)
        links = {f"w{i}": self.watch(f"w{i}") for i in range(number)} | {"probe": self.probe.add("probe")}
        text = (f"[broker]\nport={self.broker.port}\n[metrics]\nlisten=\n[directories]\nstate={folder}/hub\nruntime={folder}/hub\n"
                "[watches]\nheart_rate=30s\nactivity=yes\n")
        text += "".join(f"[watch {name}]\nlink={link}\n" for name, link in links.items())
        pathlib.Path(folder, "hub.conf").write_text(text, "utf-8")
        os.mkdir(f"{folder}/hub", 0o700)
        until(lambda: sum(os.path.exists(f"{folder}/w{i}/link.sock") for i in range(number)) == number, "all services")
        self.hub = self.start([HUB, "--config", f"{folder}/hub.conf"], folder)
        until(lambda: self.status()["linked"] == number + 1, lambda: f"{number + 1} links: {self.status()['linked']}")

    def start(self, command, folder, **environment):
        log = open(f"{folder}/log", "ab")
        process = subprocess.Popen(command, stderr=log, env={**os.environ, **environment})
        log.close()
        self.processes.append(process)
        return process

    def watch(self, name):
        folder = os.path.join(self.folder, name)
        os.mkdir(folder, 0o700)
        pathlib.Path(folder, "platform.conf").write_text(f"[replay]\nfiles={TREE}/recordings/run-47min-1hz.csv\n", "utf-8")
        self.start([PARVANE], folder, RUNTIME_DIRECTORY=folder, STATE_DIRECTORY=folder,
                   PARVANE_PLATFORM_CONF=f"{folder}/platform.conf")
        return f"unix:{folder}/link.sock"

    def status(self):
        done = subprocess.run([HUB, "--config", f"{self.folder}/hub.conf", "status", "--json"], capture_output=True, check=False)
        return json.loads(done.stdout) if done.returncode == 0 else {"linked": 0}

    def processor_s(self):
        fields = pathlib.Path(f"/proc/{self.hub.pid}/stat").read_text("utf-8").rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def memory_kib(self):
        text = pathlib.Path(f"/proc/{self.hub.pid}/smaps_rollup").read_text("utf-8")
        return int(re.search(r"Private_Dirty: +(\d+)", text)[1])

    def delays_ms(self, seconds):
        """Of readings that the probe sends, one every 50 ms, until the subscriber has them."""
        sent, arrived = {}, {}

        def note(_client, _data, message):
            now = time.monotonic()
            self.subscriber.messages.append(message)
            if message.topic == "parvane/probe/heart_rate":
                arrived[json.loads(message.payload)["value"]] = now

        self.subscriber.client.on_message = note
        for value in range(1, int(seconds * 20) + 1):
            sent[value] = time.monotonic()
            self.probe.send("probe", reading(HEART_RATE, float(value)))
            time.sleep(0.05)
        until(lambda: set(sent) <= set(arrived), "the probe's readings")
        return sorted((arrived[value] - sent[value]) * 1000 for value in sent)

    def check(self):
        """Each reading once, and in order for each watch: the numbers of a run have no gap. It ends the watches."""
        for process in self.processes:
            if process is not self.hub:  # whose queue is empty only when nothing comes any more
                process.terminate()
        until(lambda: self.status()["queue"]["messages"] == 0, "an empty queue")
        bodies = [json.loads(message.payload) for message in list(self.subscriber.messages)
                  if message.payload.startswith(b'{"id"')]
        numbers = [int(body["id"].split("-")[1]) for body in bodies]
        assert sorted(numbers) == list(range(1, max(numbers) + 1)), "a reading is missing, or there twice"
        latest = {}
        for body, number in zip(bodies, numbers):
            assert latest.get(body["watch"], 0) < number, "readings of " + body["watch"] + " out of order"
            latest[body["watch"]] = number

    def close(self):
        self.subscriber.close()
        for process in reversed(self.processes):
            process.terminate()
        for process in self.processes:
            process.wait(60)
        self.broker.stop()
        self.probe.close()


def measure(number):
    folder = tempfile.mkdtemp(prefix="parvane-hub-bench-")
    ward = Ward(folder, number)
    try:
        time.sleep(3)  # the first answers
        before, readings = ward.processor_s(), ward.status()["delivered"]
        begin = time.monotonic()
        delays = ward.delays_ms(SECONDS)
        seconds = time.monotonic() - begin
        used, readings = ward.processor_s() - before, ward.status()["delivered"] - readings
        memory = ward.memory_kib()
        ward.check()
        return {"watches": number + 1, "readings a second": readings / seconds, "memory": memory,
                "ms a watch": used / seconds / (number + 1) * 1000, "us a reading": used / readings * 1e6,
                "median": delays[len(delays) // 2], "p99": delays[int(len(delays) * 0.99)]}
    finally:
        ward.close()
        shutil.rmtree(folder, ignore_errors=True)


def main():
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(most, 65536), most))
    results = []
    for number in NUMBERS:
        print(f"hub: {number} watches", file=sys.stderr, flush=True)
        results.append(measure(number))
    first, last = results[0], results[-1]
    memory = (last["memory"] - first["memory"]) / (last["watches"] - first["watches"])
    head = ["watches", "readings a second", "processor, ms a second and watch", "µs a reading", "private memory, KiB",
            "delay, median ms", "delay, p99 ms"]
    rows = [[f"{each['watches']}", f"{each['readings a second']:.0f}", f"{each['ms a watch']:.3f}", f"{each['us a reading']:.0f}",
             f"{each['memory']}", f"{each['median']:.1f}", f"{each['p99']:.1f}"] for each in results]
    if MARKDOWN:
        rows = [["---"] * len(head), *rows]
    for row in [head, *rows]:
        print("| " + " | ".join(row) + " |" if MARKDOWN else "  ".join(f"{cell:>18.18}" for cell in row))
    print(f"\n{memory:.1f} KiB of memory for each watch more.")
    kept = (memory <= MEMORY_KIB and last["p99"] < DELAY_MS
            and last["us a reading"] <= GROWTH * first["us a reading"])
    if not kept:
        print(f"hub: the budgets of {MEMORY_KIB} KiB, {DELAY_MS} ms and {GROWTH} times are not kept", file=sys.stderr)
    sys.exit(0 if kept else 3)


if __name__ == "__main__":
    main()
