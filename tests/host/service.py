"""The real service, for tests in Python."""
import os
import pathlib
import subprocess
import time


def check(condition, what):
    if not condition:
        raise AssertionError(what)


class Service:
    """The real service in a folder of its own; `manual`: with sensors that are set by hand."""

    def __init__(self, program, watch, folder, manual=False, **environment):
        self.watch_program = watch
        self.folder = pathlib.Path(folder)
        for name in "run", "state":
            (self.folder / name).mkdir(parents=True)
        self.environment = {**os.environ, "TZ": "UTC", "RUNTIME_DIRECTORY": str(self.folder / "run"),
                            "STATE_DIRECTORY": str(self.folder / "state"), "XDG_STATE_HOME": str(self.folder / "home")}
        if manual:
            config = self.folder / "platform.conf"
            config.write_text("[sensors]\nheart_rate=manual\npedometer=manual\nactivity=manual\n", "utf-8")
            environment["PARVANE_PLATFORM_CONF"] = str(config)
        log = open(self.folder / "log", "w", encoding="utf-8")
        self.process = subprocess.Popen([program], env={**self.environment, **environment}, stderr=log)
        log.close()
        for _ in range(400):
            if self.watch("status", check=False).returncode == 0:
                return
            time.sleep(0.05)
        raise AssertionError("no service: " + (self.folder / "log").read_text("utf-8"))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait(20)

    def start(self, *command):
        return subprocess.Popen(command, env=self.environment, stdout=subprocess.PIPE, text=True)

    def watch(self, *arguments, check=True):
        return subprocess.run([self.watch_program, *arguments], env=self.environment, check=check, capture_output=True, text=True, timeout=20)
