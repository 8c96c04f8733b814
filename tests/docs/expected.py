"""Whether what came is what a page shows: "..." stands for anything, and numbers may be let vary."""

import difflib
import json
import re


def pattern_of(text, numbers_vary):
    """A regular expression of what the text stands for; a line of "..." alone is any number of lines."""

    def part_of(part):
        if part == "...":
            return ".*"
        if numbers_vary and part.isdigit():
            return r"\d+"
        return " +" if numbers_vary and part.startswith("  ") else re.escape(part)

    lines = []
    for line in text.rstrip("\n").split("\n"):
        parts = re.split(r"(\.\.\.|[0-9]+| {2,})", line.rstrip())
        lines.append(r"(?:.*\n)*" if line.strip() == "..." else "".join(map(part_of, parts)) + r"[ ]*\n")
    return "".join(lines)


def text_differs(shown, printed, numbers_vary):
    """None, or how the two differ."""
    printed = printed.rstrip("\n") + "\n"
    if re.fullmatch(pattern_of(shown, numbers_vary), printed):
        return None
    difference = difflib.unified_diff(shown.splitlines(), printed.splitlines(), "the page", "what is printed", lineterm="")
    return "\n".join(difference)


def parse_shown(text):
    """JSON in which "..." outside of a text stands for more members or elements."""

    def named(match):
        if match[0] != "...":
            return match[0]
        before = re.sub(r'"(\\.|[^"\\])*"', "", text[: match.start()])
        opened = [sign for sign in before if sign in "{[]}"]
        depth = []
        for sign in opened:
            depth.append(sign) if sign in "{[" else depth.pop()
        return '"...":0' if depth[-1:] == ["{"] else '"..."'

    return json.loads(re.sub(r'"(?:\\.|[^"\\])*"|\.\.\.', named, text))


def value_differs(shown, value, numbers_vary, where="the message"):
    """None, or where and how a value of JSON is not what is shown."""
    if isinstance(shown, dict) and isinstance(value, dict):
        names = set(shown) - {"..."}
        if names - set(value) or ("..." not in shown and set(value) - names):
            return f"{where} has the members {sorted(value)}, the page shows {sorted(shown)}"
        return next(filter(None, (value_differs(shown[name], value[name], numbers_vary, f"{where}.{name}") for name in sorted(names))), None)
    if isinstance(shown, list) and isinstance(value, list):
        if "..." in shown:
            rest = iter(value)
            wanted = [element for element in shown if element != "..."]
            if all(any(value_differs(element, other, numbers_vary) is None for other in rest) for element in wanted):
                return None
        elif len(shown) == len(value):
            return next(filter(None, (value_differs(a, b, numbers_vary, f"{where}[]") for a, b in zip(shown, value))), None)
    elif isinstance(shown, str) and isinstance(value, str):
        if re.fullmatch(pattern_of(shown, numbers_vary), value.rstrip("\n") + "\n"):
            return None
    elif shown == value and isinstance(shown, bool) == isinstance(value, bool):
        return None
    elif numbers_vary and all(isinstance(number, (int, float)) and not isinstance(number, bool) for number in (shown, value)):
        return None
    return f"{where} is {json.dumps(value)}, the page shows {json.dumps(shown)}"


def packet_differs(shown, packet):
    """None, or how a packet of the link is not what is shown, the time of a reading left out."""

    def timeless(some):
        return some[:5] + some[13:] if len(some) == 18 else some

    return None if timeless(shown) == timeless(packet) else f"the packet is {packet.hex(' ')}, the page shows {shown.hex(' ')}"
