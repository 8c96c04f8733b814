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
    sides = shown.splitlines(), printed.splitlines()
    return "\n".join(difflib.unified_diff(*sides, "the page", "what is printed", lineterm=""))


def parse_shown(text):
    """JSON in which "..." outside of a text stands for more members or elements."""
    opened = []

    def named(match):
        sign = match[0]
        if sign in ("{", "["):
            opened.append(sign)
        elif sign in ("}", "]"):
            opened.pop()
        elif sign == "...":
            return '"...":0' if opened[-1:] == ["{"] else '"..."'
        return sign

    return json.loads(re.sub(r'"(?:\\.|[^"\\])*"|\.\.\.|[{}\[\]]', named, text))


def first_difference(differences):
    return next(filter(None, differences), None)


def elements_differ(shown, value, numbers_vary, where):
    """As value_differs(), of two lists; what "..." stands for may lie between the elements that are shown."""
    if "..." not in shown:
        if len(shown) != len(value):
            return f"{where} has {len(value)} elements, the page shows {len(shown)}"
        pairs = zip(shown, value)
        return first_difference(value_differs(*pair, numbers_vary, f"{where}[]") for pair in pairs)
    rest = iter(value)
    for element in shown:
        if element != "..." and all(value_differs(element, other, numbers_vary) for other in rest):
            return f"{where} has no {json.dumps(element)}: {json.dumps(value)}"
    return None


def value_differs(shown, value, numbers_vary, where="the message"):
    """None, or where and how a value of JSON is not what is shown."""
    if isinstance(shown, dict) and isinstance(value, dict):
        names = sorted(set(shown) - {"..."})
        if set(names) - set(value) or ("..." not in shown and set(value) - set(names)):
            return f"{where} has the members {sorted(value)}, the page shows {sorted(shown)}"
        pairs = ((name, shown[name], value[name]) for name in names)
        return first_difference(value_differs(a, b, numbers_vary, f"{where}.{name}") for name, a, b in pairs)
    if isinstance(shown, list) and isinstance(value, list):
        return elements_differ(shown, value, numbers_vary, where)
    if isinstance(shown, str) and isinstance(value, str):
        same = re.fullmatch(pattern_of(shown, numbers_vary), value.rstrip("\n") + "\n")
    elif numbers_vary and type(shown) in (int, float) and type(value) in (int, float):
        same = True
    else:
        same = shown == value and isinstance(shown, bool) == isinstance(value, bool)
    return None if same else f"{where} is {json.dumps(value)}, the page shows {json.dumps(shown)}"


def packet_differs(shown, packet):
    """None, or how a packet of the link is not what is shown, the time of a reading left out."""

    def timeless(some):
        return some[:5] + some[13:] if len(some) == 18 else some

    same = timeless(shown) == timeless(packet)
    return None if same else f"the packet is {packet.hex(' ')}, the page shows {shown.hex(' ')}"
