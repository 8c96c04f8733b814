"""Prints each line that no unit test has run, with the reason that tests/coverage/missing gives for it.

Usage: missing.py REPORT      (a JSON report of gcovr; run in the root of the tree)
"""

import json
import sys
from pathlib import Path


def read_reasons(path):
    """(file, line without its indentation) -> reason."""
    text = "\n".join(line for line in path.read_text().splitlines() if not line.startswith("#"))
    reasons = {}
    for block in text.split("\n\n"):
        lines = block.strip("\n").splitlines()
        if lines:
            reason = " ".join(line for line in lines[1:] if not line.startswith("- "))
            reasons |= {(lines[0], line[2:]): reason for line in lines if line.startswith("- ")}
    return reasons


def main():
    reasons = read_reasons(Path(__file__).with_name("missing"))
    report = json.loads(Path(sys.argv[1]).read_text())
    missing = unexplained = 0
    for file in sorted(report["files"], key=lambda entry: entry["file"]):
        source = Path(file["file"]).read_text().splitlines()
        for line in file["lines"]:
            if line["count"] or line.get("gcovr/noncode"):
                continue
            text = source[line["line_number"] - 1].strip()
            reason = reasons.get((file["file"], text))
            missing += 1
            unexplained += reason is None
            print(f"{file['file']}:{line['line_number']}: {text}\n    {reason or 'NOT EXPLAINED'}")
    print(f"{missing} lines missing, {unexplained} of them not explained")


if __name__ == "__main__":
    main()
