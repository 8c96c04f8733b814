"""The exchanges that a page shows, held with a real service."""

import json
import re
import subprocess
from select import select

from blocks import PageError
from expected import packet_differs, parse_shown, value_differs
from place import REPLY_SECONDS, Service, end

QUIET_SECONDS = 0.3


class Control:
    """The messages of the control socket, as the page writes them: "> {...}" and "< {...}"."""

    SOCKET, REQUEST = "control.sock", ">"

    @staticmethod
    def lines(text):
        return [(part[0], part[2:]) for part in re.split(r"\n(?=[<>] )", text.rstrip("\n"))]

    @staticmethod
    def packet(text):
        return text.encode()

    @staticmethod
    def differs(shown, packet, numbers_vary):
        return value_differs(parse_shown(shown), json.loads(packet), numbers_vary)

    @staticmethod
    def refused(held):
        """None, or that the reply to a request that the page shows none for is not "ok"."""
        packet = held.receive()
        return None if json.loads(packet).get("ok") else f"the request is refused: {packet.decode()}"

    @staticmethod
    def ends_service(text):
        return parse_shown(text).get("request") in ("memory", "battery", "quit")


class Link:
    """The packets of the accessory link: "phone 01 00 ..." and "watch 81 80 ...", then remarks."""

    SOCKET, REQUEST = "link.sock", "phone"

    @staticmethod
    def lines(text):
        return [tuple(line.split(maxsplit=1)) for line in text.splitlines()]

    @staticmethod
    def packet(text):
        return bytes.fromhex(re.match(r"(?:[0-9A-F]{2}(?: |$))+", text)[0])

    @staticmethod
    def differs(shown, packet, numbers_vary):
        return packet_differs(Link.packet(shown), packet)

    @staticmethod
    def refused(_held):
        return None

    @staticmethod
    def ends_service(_text):
        return False


class Exchange:
    """One block of messages, held with a service of its own; `protocol` is Control or Link."""

    def __init__(self, place, block, protocol):
        self.place, self.block, self.protocol = place, block, protocol
        self.service = self.link = None

    def begin(self):
        self.service = Service(self.place, self.block.directives.get("service", "manual"))
        self.run("first")
        self.link = self.service.connect(self.protocol.SOCKET)

    def end(self):
        if self.link:
            self.link.close()
        if self.service:
            end(self.service.process)
        self.service = self.link = None

    def run(self, name):
        """Runs the commands of a comment of the block, if it has that one."""
        if name not in self.block.directives:
            return
        output = self.place.path / f"{name}.out"
        with open(output, "wb") as file:  # what goes on in the background keeps it open
            process = self.place.start("set -e; " + self.block.directives[name], file)
        if process.wait(REPLY_SECONDS):
            raise PageError(f"line {self.block.line}: {name} ends with {process.returncode}: {output.read_text()}")

    def receive(self):
        packet = self.link.recv(70000)
        if not packet:
            raise PageError(f"line {self.block.line}: the connection has ended")
        return packet

    def wrong(self):
        """Sends what the block sends, compares what comes with what it shows, and yields what differs."""
        lines = self.protocol.lines(self.block.text)
        told = False
        for at, (side, text) in enumerate(lines):
            if not self.service:
                self.begin()
            if side != self.protocol.REQUEST:
                if not told and lines[at - 1][0] == side:
                    self.run("meanwhile")
                    told = True
                differs = self.protocol.differs(text, self.receive(), self.block.numbers_vary)
                if differs:
                    yield f"{text}: {differs}"
                continue
            self.link.send(self.protocol.packet(text))
            if at + 1 == len(lines) or lines[at + 1][0] == side:
                refused = self.protocol.refused(self)
                if refused:
                    yield f"{text}: {refused}"
                elif self.protocol.ends_service(text):
                    self.service.process.wait(REPLY_SECONDS)
                    self.end()
        if self.protocol is Link and select([self.link], [], [], QUIET_SECONDS)[0]:
            more = self.link.recv(70000)
            if more:
                yield f"more comes than is shown: {more!r}"


def exchange(place, block, protocol):
    """Yields what is wrong with a block of messages."""
    held = Exchange(place, block, protocol)
    try:
        yield from held.wrong()
    except (OSError, subprocess.TimeoutExpired) as error:
        yield f"{error}; the service's log:\n{held.service.log.read_text()}"
    finally:
        held.end()
