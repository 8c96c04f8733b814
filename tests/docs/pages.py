"""Follows the pages literally: runs every command block, and compares what a page promises.

Usage: pages.py --source TREE --build BUILD PAGE...     (pages are named below the tree)

Each chapter is followed in a tree of its own, in which build/dev and build/release are the given build, with
a fresh home and run-time directory. CONTRIBUTING.md, "Pages", has the rules. Exit status: 0 when every page is
true, else 1, with a line for each thing that is wrong.
"""

import argparse
import json
import os
import re
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from blocks import PageError, anchors_of, blocks_of, links_of
from expected import packet_differs, parse_shown, text_differs, value_differs

CHAPTER_SECONDS = 120  # on a machine that does much else; a chapter takes half a minute at most
REPLY_SECONDS = 40
PROGRAMS = {"parvane": "src/service", "parvane-host": "host", "parvane-watch": "watch"}
ITEMS = ("heart_rate", "pedometer", "activity", "gesture")
SCRIPT = """set -e
end() { status=$?; trap - EXIT; kill $(jobs -p) 2>/dev/null || true; wait; exit $status; }
trap end EXIT
trap 'exit 143' TERM
"""


class Place:
    """A tree with its build, a home and directories for one service, all of it gone at the end."""

    def __init__(self, source, build):
        self.folder = tempfile.TemporaryDirectory(prefix="parvane-pages-", ignore_cleanup_errors=True)
        self.path = Path(self.folder.name)
        self.build = build
        self.tree, self.programs, self.run = self.path / "parvane", self.path / "bin", self.path / "run"
        for folder in (self.tree / "build", self.programs, self.path / "home"):
            folder.mkdir(parents=True)
        self.run.mkdir(mode=0o700)
        for entry in source.iterdir():
            if entry.name not in ("build", ".git"):
                (self.tree / entry.name).symlink_to(entry)
        for preset in ("dev", "release"):
            (self.tree / "build" / preset).symlink_to(build)
        for name, folder in PROGRAMS.items():
            (self.programs / name).symlink_to(build / folder / name)
        # The tree is built: whoever builds it again has nothing to wait for.
        (self.programs / "cmake").symlink_to("/bin/true")
        self.environment = {
            "HOME": str(self.path / "home"), "XDG_RUNTIME_DIR": str(self.run), "LANG": "C.UTF-8", "TZ": "UTC",
            "TMPDIR": str(self.path), "PARVANE_FOLLOWED": "1", "PATH": f"{self.programs}:/usr/local/bin:/usr/bin:/bin",
        }  # fmt: skip
        for name in ("LD_PRELOAD", "ASAN_OPTIONS", "UBSAN_OPTIONS"):
            if name in os.environ:
                self.environment[name] = os.environ[name]

    def start(self, script, output, more=None):
        """Bash with a script, in the tree, as the leader of a process group."""
        return subprocess.Popen(
            ["bash", "-c", script], cwd=self.tree, env=self.environment | (more or {}), stdin=subprocess.DEVNULL,
            stdout=output, stderr=subprocess.STDOUT, start_new_session=True,
        )  # fmt: skip

    def close(self):
        self.folder.cleanup()


def end(process):
    """Ends a process and what it has started."""
    for sign in (signal.SIGTERM, signal.SIGKILL):
        try:
            os.killpg(process.pid, sign)
        except ProcessLookupError:
            pass
        try:
            process.wait(10)
        except subprocess.TimeoutExpired:
            continue


class Service:
    """A running service in a place; `sources` is "manual" for all items, or such as "heart_rate=ble"."""

    def __init__(self, place, sources):
        configuration = place.path / "platform.conf"
        keys = [f"{item}=manual" for item in ITEMS] if sources == "manual" else sources.split()
        configuration.write_text("\n".join(["[sensors]", *keys]) + "\n")
        self.log = place.path / "service.log"
        self.sockets = place.run / "parvane"
        with open(self.log, "ab") as log:
            self.process = place.start("exec parvane", log, {"PARVANE_PLATFORM_CONF": str(configuration)})
        self.connect("control.sock").close()

    def connect(self, name):
        """A connection to one of its sockets, once it is there."""
        deadline = time.monotonic() + 20
        while True:
            link = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
            try:
                link.connect(str(self.sockets / name))
                link.settimeout(REPLY_SECONDS)
                return link
            except OSError as error:
                link.close()
                if time.monotonic() > deadline or self.process.poll() is not None:
                    raise PageError(f"the service has no {name}: {error}; its log:\n{self.log.read_text()}") from error
                time.sleep(0.02)


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
    def refused(packet):
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
    def ends_service(text):
        return False


def exchange(place, block, protocol):
    """Sends what a block sends, and compares what comes with what it shows; yields what is wrong."""
    service, link = None, None

    def run(name):
        if name not in block.directives:
            return
        output = place.path / f"{name}.out"
        with open(output, "wb") as file:  # what goes on in the background keeps it open
            process = place.start("set -e; " + block.directives[name], file)
        if process.wait(REPLY_SECONDS):
            raise PageError(f"line {block.line}: {name} ends with {process.returncode}: {output.read_text()}")

    def receive():
        packet = link.recv(70000)
        if not packet:
            raise PageError(f"line {block.line}: the connection has ended")
        return packet

    try:
        lines = protocol.lines(block.text)
        told = "meanwhile" not in block.directives
        for at, (side, text) in enumerate(lines):
            if not service:
                service = Service(place, block.directives.get("service", "manual"))
                link = service.connect(protocol.SOCKET)
                run("first")
            if side == protocol.REQUEST:
                link.send(protocol.packet(text))
                shown = at + 1 < len(lines) and lines[at + 1][0] != side
                wrong = None if shown or protocol is Link else Control.refused(receive())
            else:
                if not told and lines[at - 1][0] == side:
                    run("meanwhile")
                    told = True
                shown = False
                wrong = protocol.differs(text, receive(), block.numbers_vary)
            if wrong:
                yield f"{text}: {wrong}"
            if not shown and protocol.ends_service(text):
                service.process.wait(REPLY_SECONDS)
                link.close()
                service = None
    except (OSError, subprocess.TimeoutExpired) as error:
        yield f"{error}; the service's log:\n{service.log.read_text()}"
    finally:
        if service:
            link.close()
            end(service.process)


def check_file(place, name, text, configuration):
    """Has parvane-watch check a configuration that is the text, or that plays the recording that is it."""
    file = place.path / name
    file.write_text(text)
    if configuration:
        file = place.path / "platform.conf"
        file.write_text(configuration)
    done = subprocess.run(
        [place.programs / "parvane-watch", "check-config", file], env=place.environment, timeout=REPLY_SECONDS,
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False,
    )  # fmt: skip
    if done.returncode or done.stderr:
        yield f"parvane-watch check-config ends with {done.returncode}: {done.stderr}"


def check_sql(blocks):
    """Runs the statements of a page's blocks in their order, in one database."""
    database = sqlite3.connect(":memory:")
    for block in blocks:
        try:
            database.executescript(block.text)
        except sqlite3.Error as error:
            yield block, str(error)


def follow(place, blocks):
    """Runs the command blocks of a chapter in one shell, one after the other; yields what is wrong."""
    commands = [block for block in blocks if block.kind == "commands" and block.runs]
    if not commands:
        return
    sources = next((block.directives["service"] for block in commands if "service" in block.directives), None)
    service = Service(place, sources) if sources else None
    progress = place.path / "progress"
    script = SCRIPT
    for number, block in enumerate(commands):
        script += f"echo {number} >{progress}\nexec >{place.path}/{number}.out 2>&1\n{block.text}"
    process = place.start(script + f"echo {len(commands)} >{progress}\n", subprocess.DEVNULL)
    try:
        status = process.wait(CHAPTER_SECONDS)
    except subprocess.TimeoutExpired:
        status = "no end"
    end(process)
    if service:
        end(service.process)

    def printed(number):
        return (place.path / f"{number}.out").read_text(errors="replace")

    def last_lines(number):
        return "\n".join(printed(number).splitlines()[-40:])

    reached = int(progress.read_text())
    if reached < len(commands) or status != 0:
        stopped = min(reached, len(commands) - 1)
        yield commands[stopped], f"it ends with {status}:\n{last_lines(stopped)}"
    for number, block in enumerate(commands[:reached]):
        after = blocks[blocks.index(block) + 1 :][:1]
        if after and after[0].kind == "output" and after[0].runs:
            wrong = text_differs(after[0].text, printed(number), after[0].numbers_vary or block.numbers_vary)
            if wrong:
                yield after[0], wrong


def wrong_reason(source, block):
    """None, or why the reason for not running a block is none: it names a file that is not there."""
    named = re.findall(r"\b(?:script|tests)/[\w./-]*\w", block.directives["not run"])
    missing = [name for name in named if not (source / name).exists()]
    return f"the reason names {missing[0]}, which is not there" if missing else None


def check_links(source, page):
    """Yields each link of the page that leads nowhere."""
    file = source / page
    for link in links_of(file.read_text()):
        path, _, anchor = link.partition("#")
        target = (file.parent / path).resolve() if path else file
        if not target.exists():
            yield f"the link {link} leads nowhere"
        elif anchor and target.suffix == ".md" and anchor not in anchors_of(target.read_text()):
            yield f"the link {link}: there is no such heading"


class Pages:
    """All that is to be done for some pages, and what has come of it."""

    def __init__(self, source, build, pages):
        self.source, self.build = source, build
        self.wrong, self.counts = [], Counter()
        self.tasks = []
        for page in pages:
            self.plan(page)

    def plan(self, page):
        self.wrong += [f"{page}: {wrong}" for wrong in check_links(self.source, page)]
        try:
            blocks = blocks_of((self.source / page).read_text())
        except PageError as error:
            self.wrong.append(f"{page}: {error}")
            return
        for block in blocks:
            self.count(page, block)
        live = [block for block in blocks if block.runs]
        for chapter in {block.chapter for block in live}:
            part = [block for block in blocks if block.chapter == chapter]
            self.tasks.append((page, lambda place, part=part: follow(place, part)))
        self.tasks.append((page, lambda place: check_sql([block for block in live if block.kind == "sql"])))
        for block in live:
            check = {
                "control": lambda place, block=block: exchange(place, block, Control),
                "link": lambda place, block=block: exchange(place, block, Link),
                "configuration": lambda place, block=block: check_file(place, "platform.conf", block.text, None),
                "recording": lambda place, block=block: check_file(place, "shown.csv", block.text, "[replay]\nfiles=shown.csv\n"),
            }.get(block.kind)
            if check:
                self.tasks.append((page, lambda place, block=block, check=check: ((block, wrong) for wrong in check(place))))

    def count(self, page, block):
        if block.runs or block.kind == "shown":
            self.counts[block.kind] += 1
            return
        self.counts["not run"] += 1
        print(f"not run: {page}:{block.line}: {' '.join(block.directives['not run'].split())}")
        reason = wrong_reason(self.source, block)
        if reason:
            self.wrong.append(f"{page}:{block.line}: {reason}")

    def run(self, task):
        page, check = task
        place = Place(self.source, self.build)
        try:
            return [f"{page}:{block.line}: {wrong}" for block, wrong in check(place)]
        except PageError as error:
            return [f"{page}: {error}"]
        finally:
            place.close()

    def all(self):
        with ThreadPoolExecutor(max_workers=16) as pool:
            for wrong in pool.map(self.run, self.tasks):
                self.wrong += wrong
        return self.wrong


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("--source", type=Path, required=True)
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("pages", nargs="+")
    given = parser.parse_args()
    if "PARVANE_FOLLOWED" in os.environ:
        sys.exit("a page runs the test that follows the pages: that block needs <!-- not run: ... -->")
    pages = Pages(given.source.resolve(), given.build.resolve(), given.pages)
    wrong = pages.all()
    for line in wrong:
        print(f"WRONG: {line}")
    counts = pages.counts
    print(
        f"{counts['commands']} command blocks run, {counts['output']} outputs compared, "
        f"{counts['control'] + counts['link']} exchanges, {counts['configuration'] + counts['recording'] + counts['sql']} files "
        f"checked; {counts['not run']} not run; {counts['shown']} only to be read; {len(wrong)} wrong"
    )
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
