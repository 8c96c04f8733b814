"""Where a chapter of a page is followed: a tree that is built, a home, and a service."""

import os
import signal
import socket
import subprocess
import tempfile
import time
from pathlib import Path

from blocks import PageError

START_SECONDS, REPLY_SECONDS = 20, 40  # on a machine that does much else
PROGRAMS = {"parvane": "src/service", "parvane-host": "host", "parvane-watch": "watch", "parvane-hub": "hub"}
ITEMS = ("heart_rate", "pedometer", "activity", "gesture")


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
        try:
            self.connect("control.sock").close()
        except PageError:
            end(self.process)
            raise

    def connect(self, name):
        """A connection to one of its sockets, once it is there."""
        deadline = time.monotonic() + START_SECONDS
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
