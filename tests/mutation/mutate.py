"""Runs the unit tests against one small change of src/service/ at a time; see script/mutate."""

import argparse
import fcntl
import fnmatch
import json
import os
import random
import resource
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

from mutations import mutations

ROOT = Path(__file__).resolve().parent.parent.parent
SERVICE = "src/service"
TEST_FOLDERS = "data;sensors;hostComm;controls;service"

# The test programs that see the code of a folder, its own first: most changes end there.
PROGRAMS = {
    "data": ("data", "sensors", "host_comm", "controls", "service"),
    "sensors": ("sensors", "controls", "service"),
    "hostComm": ("host_comm", "controls", "service"),
    "controls": ("controls", "service"),
}
ENTRY_PROGRAMS = ("service",)
BASE_PROGRAMS = ("sensors", "host_comm", "controls", "service")

# What nearly every test includes, read once for all: a change of a header compiles all tests that see it.
TEST_MACRO = "GTEST_HAS_PTHREAD"
COMMON_HEADERS = ("gmock/gmock.h", "gtest/gtest.h", "list", "map", "memory", "optional", "sstream", "string", "vector")

BUILD_LIMIT_S = 600
# What a test program may take: in processor time, which a busy machine does not stretch, and at the clock.
CPU_LIMIT_FACTOR = 10
CPU_LIMIT_LEAST_S = 5
TEST_LIMIT_S = 120
MEMORY_LIMIT = 4 << 30


class Failure(Exception):
    pass


class Tree:
    """A copy of the sources and its one build folder."""

    def __init__(self, folder, compiler_flags):
        self.folder = folder
        self.sources = folder / "tree"
        self.build = folder / "build"
        self.compiler_flags = compiler_flags
        folder.mkdir(parents=True, exist_ok=True)
        self.lock = open(folder / "lock", "w")
        try:
            fcntl.flock(self.lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            raise Failure(f"another run works in {folder}") from None

    def copy(self):
        """Copies what differs: what an earlier run has built stays built."""
        listed = subprocess.run(
            ["git", "-C", ROOT, "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
            check=True, capture_output=True, text=True,
        )  # fmt: skip
        files = {name for name in listed.stdout.split("\0") if name and (ROOT / name).is_file()}
        for name in files:
            source, target = ROOT / name, self.sources / name
            if not target.is_file() or source.read_bytes() != target.read_bytes():
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(source, target)
        for target in self.sources.rglob("*"):
            if target.is_file() and str(target.relative_to(self.sources)) not in files:
                target.unlink()

    def configure(self):
        flags = ["-O0", "-w", "-D_GLIBCXX_ASSERTIONS", *self.compiler_flags]
        prefix = self._precompile(flags)
        self._run([
            "cmake", "-S", self.sources, "-B", self.build, "-G", "Ninja",
            "-DCMAKE_CXX_COMPILER=g++", "-DCMAKE_C_COMPILER=gcc", "-DCMAKE_BUILD_TYPE=",
            "-DCMAKE_CXX_COMPILER_LAUNCHER=", "-DCMAKE_C_COMPILER_LAUNCHER=",
            f"-DCMAKE_CXX_FLAGS={' '.join(flags)} -include {prefix}",
            f"-DCMAKE_C_FLAGS={' '.join(flags)}",
            # Most of a change's time is linking, and this linker takes half as long.
            "-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=gold",
            "-DPARVANE_TESTS=ON", f"-DPARVANE_TEST_FOLDERS={TEST_FOLDERS}",
        ])  # fmt: skip

    def _precompile(self, flags):
        """Compiles the common headers of the tests; the sources of the service are faster without."""
        prefix = self.folder / "common.h"
        includes = "".join(f"#include <{name}>\n" for name in COMMON_HEADERS)
        text = f"#ifdef {TEST_MACRO}\n{includes}#endif\n"
        if not prefix.is_file() or prefix.read_text() != text:
            prefix.write_text(text)
            # Taken only by what is compiled with the same flags.
            as_a_test = ["-fPIE", "-Wpedantic", "-std=c++20", f"-D{TEST_MACRO}=1"]
            self._run(["g++", *flags, *as_a_test, "-x", "c++-header", prefix, "-o", f"{prefix}.gch"])
        return prefix

    def make(self, program):
        return self._ninja(f"parvane_{program}_test")

    def make_all(self, programs):
        if not self._ninja(*(f"parvane_{program}_test" for program in programs), show=True):
            raise Failure("the unchanged sources do not build")

    def test(self, program, cpu_limit):
        """Runs one test program: "passed", "failed", or "stopped" at the limit of its time."""

        def limit():
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
            resource.setrlimit(resource.RLIMIT_CPU, (cpu_limit, cpu_limit))
            if not self.compiler_flags:  # a sanitizer reserves far more than it uses
                resource.setrlimit(resource.RLIMIT_AS, (MEMORY_LIMIT, MEMORY_LIMIT))

        path = self.build / "tests" / _folder_of(program) / f"parvane_{program}_test"
        environment = dict(os.environ, GTEST_BRIEF="1", GTEST_FAIL_FAST="1")
        if not self.compiler_flags:
            # A block that is freed loses what it held, and one that was written beyond its end aborts.
            environment |= {"MALLOC_PERTURB_": "165", "MALLOC_CHECK_": "3", "LD_PRELOAD": "libc_malloc_debug.so.0"}
        process = subprocess.Popen(
            [path], cwd=path.parent, env=environment, start_new_session=True, preexec_fn=limit,
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
        )  # fmt: skip
        try:
            code = process.wait(TEST_LIMIT_S)
            if code in (-signal.SIGXCPU, -signal.SIGKILL):
                return "stopped"
            return "passed" if code == 0 else "failed"
        except subprocess.TimeoutExpired:
            return "stopped"
        finally:
            try:
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            process.wait()

    def _ninja(self, *targets, show=False):
        command = ["ninja", "-C", self.build, "--quiet", *targets]
        output = None if show else subprocess.DEVNULL
        return subprocess.run(command, stdout=output, stderr=output, timeout=BUILD_LIMIT_S).returncode == 0

    def _run(self, command):
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if done.returncode != 0:
            raise Failure(done.stdout)


def _folder_of(program):
    return "hostComm" if program == "host_comm" else program


def programs_for(file):
    parts = Path(file).relative_to(SERVICE).parts
    if len(parts) > 1:
        return PROGRAMS[parts[0]]
    return ENTRY_PROGRAMS if parts[0].endswith(".cpp") else BASE_PROGRAMS


def read_survivors(path):
    """The explained survivors: (file, old line, new line or None for any change) -> reason."""
    known = {}
    blocks = "\n".join(line for line in path.read_text().splitlines() if not line.startswith("#")).split("\n\n")
    for block in blocks:
        lines = block.strip("\n").splitlines()
        if not lines:
            continue
        if len(lines) < 3 or not lines[1].startswith("- "):
            raise Failure(f"{path}: not an entry:\n{block}")
        new = [line[2:] for line in lines[2:] if line.startswith("+ ")]
        reason = " ".join(line.strip() for line in lines[2:] if not line.startswith("+ "))
        for change in new or [None]:
            known[(lines[0], lines[1][2:], change)] = reason
    return known


class Progress:
    """One line that changes on a terminal, a line now and then elsewhere; always on stderr."""

    def __init__(self, count):
        self.count = count
        self.told = 0
        self.is_terminal = sys.stderr.isatty()

    def show(self, done, caught, what):
        text = f"{done} of {self.count} tried, {caught} caught; {what}"
        if self.is_terminal:
            print(f"\r\033[K{text[:shutil.get_terminal_size().columns - 1]}", end="", file=sys.stderr, flush=True)
        elif done >= self.told + 10:
            self.told = done
            print(text, file=sys.stderr, flush=True)

    def say(self, text):
        print(("\r\033[K" if self.is_terminal else "") + text, file=sys.stderr, flush=True)


def read_sources(pattern):
    sources = {}
    for path in sorted((ROOT / SERVICE).rglob("*")):
        name = str(path.relative_to(ROOT))
        if path.suffix in (".cpp", ".h") and fnmatch.fnmatch(name, pattern):
            sources[name] = path.read_text()
    return sources


def choose(sources, seed):
    """All changes in the order in which this seed tries them."""
    candidates = [change for name, source in sources.items() for change in mutations(name, source)]
    random.Random(seed).shuffle(candidates)
    return candidates


class Run:
    def __init__(self, tree, sources, known):
        self.tree = tree
        self.sources = sources
        self.known = known
        self.limits = {}
        self.changed = None

    def prepare(self):
        self.tree.copy()
        self.tree.configure()
        needed = {program for name in self.sources for program in programs_for(name)}
        self.tree.make_all(sorted(needed))
        for program in sorted(needed):
            begin = resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime
            result = self.tree.test(program, TEST_LIMIT_S)
            if result != "passed":
                raise Failure(f"parvane_{program}_test {result} with the unchanged sources")
            spent = resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime - begin
            self.limits[program] = CPU_LIMIT_LEAST_S + round(CPU_LIMIT_FACTOR * spent)

    def attempt(self, change):
        """What became of one change: a report, or None when it does not compile."""
        # The last change of another file is taken back together with this one.
        if self.changed not in (None, change.file):
            self._write(self.changed, self.sources[self.changed])
        self.changed = change.file
        source = self.sources[change.file]
        self._write(change.file, change.apply(source))
        begin = time.monotonic()
        caught = None
        for program in programs_for(change.file):
            if not self.tree.make(program):
                return None
            result = self.tree.test(program, self.limits[program])
            if result != "passed":
                caught = f"parvane_{program}_test {result}"
                break
        old, new = change.old_and_new(source)
        report = {
            "file": change.file,
            "line": change.line(source),
            "kind": change.kind,
            "old": old,
            "new": new,
            "caught": caught,
            "seconds": round(time.monotonic() - begin, 1),
        }
        if caught is None:
            report["reason"] = self.known.get((change.file, old, new)) or self.known.get((change.file, old, None))
        return report

    def finish(self):
        if self.changed:
            self._write(self.changed, self.sources[self.changed])

    def _write(self, name, text):
        (self.tree.sources / name).write_text(text)


def in_batches(candidates, count):
    """The next candidates, those of one file together: each change of file compiles two of them."""
    return sorted(candidates[:count], key=lambda change: (change.file, change.start, change.end, change.text))


def run(options):
    sources = read_sources(options.files)
    candidates = choose(sources, options.seed)
    known = read_survivors(ROOT / "tests/mutation/survivors")
    count = min(options.count, len(candidates))
    flags = ["-fsanitize=address,undefined", "-fno-sanitize-recover=all"] if options.sanitize else []
    folder = ROOT / "build" / (options.folder + ("-sanitized" if options.sanitize else ""))
    progress = Progress(count)
    for file, old, new in outdated(known, sources):
        progress.say(f"tests/mutation/survivors: {file} has no such change:\n    - {old}\n    + {new or 'any'}")
    progress.say(f"seed {options.seed}: {count} of {len(candidates)} changes of {SERVICE}; building the tests")

    begin = time.monotonic()
    session = Run(Tree(folder, flags), sources, known)
    session.prepare()
    reports = []
    refused = caught = 0
    try:
        while len(reports) < count and candidates:
            batch = in_batches(candidates, count - len(reports))
            del candidates[: len(batch)]
            for change in batch:
                progress.show(len(reports), caught, f"{change.file}:{change.line(sources[change.file])}")
                report = session.attempt(change)
                if report is None:
                    refused += 1
                    continue
                reports.append(report)
                caught += report["caught"] is not None
                if report["caught"] is None and not report["reason"]:
                    progress.say("survived: " + describe(report))
    finally:
        session.finish()
    progress.show(len(reports), caught, "done")
    progress.say("")

    survivors = [report for report in reports if report["caught"] is None]
    return {
        "seed": options.seed,
        "tried": len(reports),
        "caught": caught,
        "per_cent": round(100 * caught / len(reports), 1) if reports else 100.0,
        "explained": sum(1 for report in survivors if report["reason"]),
        "unexplained": sum(1 for report in survivors if not report["reason"]),
        "not_compiled": refused,
        "seconds": round(time.monotonic() - begin),
        "survivors": survivors,
        "changes": reports,
    }


def outdated(known, sources):
    """The entries of the explained survivors that are no change of these sources."""
    possible = set()
    for name, source in sources.items():
        for change in mutations(name, source):
            old, new = change.old_and_new(source)
            possible |= {(name, old, new), (name, old, None)}
    return [entry for entry in known if entry[0] in sources and entry not in possible]


def describe(report):
    return f"{report['file']}:{report['line']} ({report['kind']})\n    - {report['old']}\n    + {report['new']}"


def print_result(result):
    for report in result["survivors"]:
        print("survived: " + describe(report))
        print("    " + (report["reason"] or "NOT EXPLAINED: a test is missing, or an entry in tests/mutation/survivors"))
    print(
        f"seed {result['seed']}: {result['caught']} of {result['tried']} changes caught, {result['per_cent']} %; "
        f"survived: {result['explained']} explained, {result['unexplained']} not; "
        f"{result['not_compiled']} did not compile and were replaced; {result['seconds']} s"
    )


def positive(text):
    number = int(text)
    if number < 1:
        raise argparse.ArgumentTypeError("must be 1 or more")
    return number


def main():
    parser = argparse.ArgumentParser(prog="script/mutate", allow_abbrev=False)
    parser.add_argument("--seed", type=int, default=1, help="which changes are chosen (default 1)")
    parser.add_argument("--count", type=positive, default=150, help="how many are tried (default 150)")
    parser.add_argument("--files", default=SERVICE + "/*", help="only files that match this pattern")
    parser.add_argument("--least", type=float, default=90, help="per cent that must be caught (default 90)")
    parser.add_argument("--folder", default="mutation", help="the folder below build/ (default mutation)")
    parser.add_argument("--sanitize", action="store_true", help="build with address and undefined-behaviour checks")
    parser.add_argument("--json", action="store_true", help="print the result as JSON")
    options = parser.parse_args()
    try:
        result = run(options)
    except (Failure, subprocess.SubprocessError, OSError) as failure:
        print(f"script/mutate: {failure}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        return 130
    if options.json:
        print(json.dumps(result, indent=1))
    else:
        print_result(result)
    return 0 if result["per_cent"] >= options.least and result["unexplained"] == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
