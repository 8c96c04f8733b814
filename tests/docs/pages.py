"""Follows the pages literally: runs every command block, and compares what a page promises.

Usage: pages.py --source TREE --build BUILD PAGE...     (pages are named below the tree)

Each chapter is followed in a tree of its own, in which build/dev and build/release are the given build, with
a fresh home and run-time directory. CONTRIBUTING.md, "Pages", has the rules. Exit status: 0 when every page is
true, else 1, with a line for each thing that is wrong.
"""

import argparse
import os
import re
import sqlite3
import subprocess
import sys
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from blocks import PageError, anchors_of, blocks_of, links_of
from exchange import Control, Link, exchange
from expected import text_differs
from place import REPLY_SECONDS, Place, Service, end

CHAPTER_SECONDS = 120  # on a machine that does much else; a chapter takes half a minute at most
SCRIPT = """set -e
end() { status=$?; trap - EXIT; kill $(jobs -p) 2>/dev/null || true; wait; exit $status; }
trap end EXIT
trap 'exit 143' TERM
"""


def refused(place, *command):
    """Yields that a command of the build fails, or complains."""
    done = subprocess.run(
        [place.programs / "parvane-watch", *command], cwd=place.path, env=place.environment, timeout=REPLY_SECONDS,
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False,
    )  # fmt: skip
    if done.returncode or done.stderr:
        yield f"parvane-watch {command[0]} ends with {done.returncode}: {done.stderr}"


def check_configuration(place, block):
    (place.path / "platform.conf").write_text(block.text)
    yield from refused(place, "check-config", "platform.conf")


def check_recording(place, block):
    (place.path / "shown.csv").write_text(block.text)
    (place.path / "platform.conf").write_text("[replay]\nfiles=shown.csv\n")
    yield from refused(place, "check-config", "platform.conf")


def check_scenario(place, block):
    (place.path / "shown.csv").write_text(block.text)
    service = Service(place, "manual")
    try:
        yield from refused(place, "play", "--speed", "100000", "shown.csv")
    finally:
        end(service.process)


ALONE = {
    "control": lambda place, block: exchange(place, block, Control),
    "link": lambda place, block: exchange(place, block, Link),
    "configuration": check_configuration,
    "recording": check_recording,
    "scenario": check_scenario,
}


def check_alone(place, block):
    """Checks a block that needs no other one."""
    for wrong in ALONE[block.kind](place, block):
        yield block, wrong


def check_sql(_place, blocks):
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
            self.tasks.append((page, follow, [block for block in blocks if block.chapter == chapter]))
        self.tasks.append((page, check_sql, [block for block in live if block.kind == "sql"]))
        self.tasks += [(page, check_alone, block) for block in live if block.kind in ALONE]

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
        page, check, what = task
        place = Place(self.source, self.build)
        try:
            return [f"{page}:{block.line}: {wrong}" for block, wrong in check(place, what)]
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
    exchanges = counts["control"] + counts["link"]
    files = sum(counts[kind] for kind in ("configuration", "recording", "scenario", "sql"))
    print(
        f"{counts['commands']} command blocks run, {counts['output']} outputs compared, {exchanges} exchanges, "
        f"{files} files checked; {counts['not run']} not run; {counts['shown']} only to be read; {len(wrong)} wrong"
    )
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
