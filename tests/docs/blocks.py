"""The blocks of a page in Markdown: what each one is, and what its page says about it in comments.

CONTRIBUTING.md, "Pages", tells the rules to whoever writes a page.
"""

import re
from dataclasses import dataclass, field

# What a comment before a block may say.
DIRECTIVES = ("not run", "numbers vary", "service", "first", "meanwhile")
LANGUAGES = {"sh": "commands", "text": "output", "ini": "configuration", "sql": "sql"}
SHOWN = ("python", "json", "csv", "html", "ts")  # to be read, and no promise of what a command prints
PROGRAMS = (
    r"(parvane(-host|-watch|-gateway|-hub)?|cmake|ctest|ninja|make|sudo|apt|apt-get|dpkg|systemctl|systemd-\w+|journalctl"
    r"|python3|git|man|export|echo|cd|mkdir|cp|kill|timeout)\s"
)
FIRST_WORDS = (
    (re.compile(r"(\$ |(script|build|\./)[\w./-]*/|[A-Z_]+=[^=\s]* )|" + PROGRAMS), "commands"),
    (re.compile(r"[<>] \{"), "control"),
    (re.compile(r"(phone|watch)  ?[0-9A-F]{2} "), "link"),
    (re.compile(r"t_ms,"), "recording"),
    (re.compile(r"t_s,"), "scenario"),
)


class PageError(Exception):
    """A block or a comment of a page that breaks the rules."""


@dataclass
class Block:
    """One block; `line` is that of its first line; the headings before it are counted in `section`, those of
    the page's two highest levels in `chapter`."""

    line: int
    chapter: int
    section: int
    language: str
    text: str
    directives: dict = field(default_factory=dict)
    kind: str = ""

    @property
    def runs(self):
        return "not run" not in self.directives

    @property
    def numbers_vary(self):
        return "numbers vary" in self.directives


def directive_of(comment, line):
    """The name and value of a comment that is about the next block; None for any other comment."""
    name, _, value = comment.partition(":")
    name = name.strip()
    if name not in DIRECTIVES:
        if re.match(r"not.?run|numbers?\b|service|first|meanwhile", name, re.I):
            raise PageError(f"line {line}: <!-- {comment} -->: a comment about a block begins with one of {DIRECTIVES}")
        return None
    if not value.strip() and name != "numbers vary":
        raise PageError(f"line {line}: <!-- {name}: ... --> lacks its reason or value")
    return name, value.strip()


def kind_of(block, previous):
    """What becomes of the block; `previous` is the one before it, None for the first."""
    after_commands = previous and previous.kind in ("commands", "output") and previous.section == block.section
    if block.language in LANGUAGES:
        kind = LANGUAGES[block.language]
        if kind == "output" and not after_commands and block.runs:
            raise PageError(f"line {block.line}: text that no command above it, in this section, has printed")
        return kind
    if block.language in SHOWN:
        return "shown"
    if block.language not in ("", "indented"):
        raise PageError(f"line {block.line}: a block of {block.language!r}: commands are sh, what they print is text")
    for pattern, kind in FIRST_WORDS:
        if pattern.match(block.text):
            if kind in ("control", "link") and block.text[0] in "<w" and block.runs:
                raise PageError(f"line {block.line}: an exchange begins with a request")
            return kind
    return "output" if after_commands and block.language == "" else "shown"


def blocks_of(page):
    """All blocks of a page's text, in order."""
    lines = page.split("\n")
    found, directives, said_at, at = [], {}, 0, 0
    chapter = section = 0
    while at < len(lines):
        begin, line = at, lines[at]
        fence = re.match(r"( {0,3})```(\S*)\s*$", line)
        comment = re.match(r"\s*<!--", line)
        at += 1
        if comment:
            while "-->" not in "".join(lines[begin:at]) and at < len(lines):
                at += 1
            text, ended, _ = "\n".join(lines[begin:at]).strip().partition("-->")
            if not ended:
                raise PageError(f"line {begin + 1}: the comment has no end")
            directive = directive_of(text[4:].strip(), begin + 1)
            if directive:
                directives[directive[0]], said_at = directive[1], begin + 1
            continue
        if fence:
            while at < len(lines) and lines[at].strip() != "```":
                at += 1
            text, language = lines[begin + 1 : at], fence[2]
            at += 1
        elif line.startswith("    ") and (begin == 0 or not lines[begin - 1].strip()):
            while at < len(lines) and (lines[at].startswith("    ") or not lines[at].strip()):
                at += 1
            text, language = [part[4:] for part in lines[begin:at]], "indented"
        else:
            if directives and line.strip():
                raise PageError(f"line {said_at}: the comment is not right before a block")
            chapter += bool(re.match(r"##? ", line))
            section += bool(re.match(r"#+ ", line))
            continue
        block = Block(begin + 1, chapter, section, language, "\n".join(text).strip("\n") + "\n", directives)
        block.kind = kind_of(block, found[-1] if found else None)
        found.append(block)
        directives = {}
    if directives:
        raise PageError(f"line {said_at}: the comment is not right before a block")
    return found


def anchors_of(page):
    """The names by which the headings of a page can be linked to."""
    headings = re.findall(r"^#+ +(.*)$", re.sub(r"^```.*?^```", "", page, flags=re.M | re.S), re.M)
    plain = (re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", heading).replace("`", "") for heading in headings)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).strip().replace(" ", "-") for heading in plain}


def links_of(page):
    """Where the page's links go, those to other machines left out."""
    text = re.sub(r"^```.*?^```", "", page, flags=re.M | re.S)
    return [target for target in re.findall(r"\]\(([^)\s]+)\)", text) if not re.match(r"\w+:", target)]
