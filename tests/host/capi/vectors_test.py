#!/usr/bin/env python3
"""The package parvane agrees with the vectors of docs/vectors, as docs/vectors/README.md says it is proved.

Usage: vectors_test.py
"""
import datetime
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "vectors"))
import parvane  # noqa: E402
import vectors  # noqa: E402


def check(condition, what):
    if not condition:
        raise AssertionError(what)


def packets():
    encoded = decoded = refused = 0
    for vector in vectors.read("requests.json")["vectors"]:
        if vector["packet"] and not vector.get("tolerated"):
            check(parvane.encode(vector["packet"]) == vectors.packet(vector), vector["name"])
            encoded += 1
    for vector in vectors.read("replies.json")["vectors"]:
        packet = vector["packet"]
        check(parvane.decode(vectors.packet(vector)) == packet, vector["name"])
        if "seconds" in vector:
            for days in -24, 24:
                now = vector["seconds"] * 1000 + days * 86400000
                check(parvane.full_time_ms(packet["time_ms"], now) == vector["seconds"] * 1000, vector["name"])
        decoded += 1
    for vector in vectors.read("malformed.json")["vectors"]:
        try:
            parvane.decode(vectors.packet(vector))
        except parvane.MalformedPacket as error:
            check(vector["error"]["field"] in str(error), vector["name"])
            refused += 1
    check(encoded > 30 and decoded > 20 and refused > 20, "%d, %d, %d" % (encoded, decoded, refused))
    check(refused == len(vectors.read("malformed.json")["vectors"]), "what is malformed is refused")


class Exchange:
    """An exchange with a session as the phone; it has flags of its own, so the replies take those."""

    def __init__(self, exchange):
        self.events = exchange["events"]
        self.begins = exchange["begins"]
        self.session = parvane.Session(trusts_link=True, zone=datetime.timedelta(0))
        self.requests = {}
        self.flags = {}
        self.ended = set()
        self.is_first_total = True
        self.answers = self.walked = 0

    def play(self):
        for index, event in enumerate(self.events):
            self.now = event["at_ms"] / 1000, self.begins + event["at_ms"] / 1000
            self.session.advance(self.now)
            if "link" in event:
                self.link(event["link"] == "up")
            elif event.get("from") == "phone" and event["packet"]:
                self.ask(index, event["packet"])
            elif event.get("from") == "watch":
                self.hear(event)
            self.see(event)

    def link(self, is_up):
        if is_up:
            self.session.connected(now=self.now)
        else:
            self.session.lost("lost", self.now)
        self.is_first_total = True

    def ask(self, index, packet):
        ask = {"list": lambda: self.session.list(now=self.now),
               "measure": lambda: self.session.measure(packet["sensor"], now=self.now),
               "stop": lambda: self.session.stop(packet["sensor"], now=self.now)}.get(packet["kind"])
        if ask and packet.get("sensor", 1) in set(parvane.Sensor):
            self.requests[index] = ask()

    def hear(self, event):
        packet = event["packet"]
        data = vectors.packet(event)
        command = data[0] % 16
        flags = self.flags.get((command, 0 if command == 1 else packet.get("sensor", 0)))
        if flags is not None:
            data = bytes([data[0] & 0xCF | flags << 4]) + data[1:]
        is_total = packet["kind"] == "reading" and packet["sensor"] == 2
        if is_total and "count" not in event and not self.is_first_total:
            self.session.take(b"", self.now)  # what does not tell its count follows something that was missed
        self.is_first_total = self.is_first_total and not is_total
        self.session.take(data, self.now)
        if "walked" in event:
            check(sum(day.steps for day in self.session.days()) == event["walked"], event)
            self.walked += 1

    def see(self, event):
        for told in self.session.events():
            check(told.request not in self.ended, "%s ends twice" % told.request)
            if told.request:
                self.ended.add(told.request)
        for sent in self.session.packets():
            command = sent[0] % 16
            self.flags[command, 0 if command == 1 else sent[3]] = sent[0] // 16 % 4
        asked = event.get("answers")
        is_last = [e for e in self.events if e.get("answers") == asked][-1:] == [event]
        if asked in self.requests and is_last and event["packet"].get("sensor") != 2:
            check(self.requests[asked] in self.ended, event)
            self.answers += 1


def exchanges():
    answers = walked = 0
    for exchange in vectors.exchanges():
        played = Exchange(exchange)
        played.play()
        answers += played.answers
        walked += played.walked
    check(answers > 15 and walked > 15, "%d answers, %d times the steps" % (answers, walked))


if __name__ == "__main__":
    packets()
    exchanges()
