"""Finds the places of a C++ source where one small change makes a different program.

A light reading of the text, not a parser: it knows tokens, brackets and statements, and relies on the
formatting of this tree (a binary operator has a space on both sides, a template's bracket has not).
What it takes for a change and the compiler does not accept is for the caller to skip.
"""

import re
from dataclasses import dataclass


@dataclass(frozen=True)
class Token:
    kind: str  # name, number, text, character or operator
    text: str
    start: int
    end: int


@dataclass(frozen=True)
class Mutation:
    """One change of one file: source[start:end] becomes `text`, the number of lines stays."""

    file: str
    kind: str
    start: int
    end: int
    text: str

    def apply(self, source):
        lost = source.count("\n", self.start, self.end) - self.text.count("\n")
        return source[: self.start] + self.text + "\n" * lost + source[self.end :]

    def line(self, source):
        return source.count("\n", 0, self.start) + 1

    def old_and_new(self, source):
        """The lines that the change touches, before and after, each as one line."""
        begin = source.rfind("\n", 0, self.start) + 1
        end = source.find("\n", self.end)
        end = len(source) if end < 0 else end
        old = source[begin:end]
        new = source[begin : self.start] + self.text + source[self.end : end]
        return " ".join(old.split()), " ".join(new.split())


_TOKEN = re.compile(
    r"""
    (?P<space>\s+|//[^\n]*|/\*.*?\*/)
  | (?P<directive>\#(?:\\\n|[^\n])*)
  | (?P<text>"(?:\\.|[^"\\\n])*")
  | (?P<character>'(?:\\.|[^'\\\n])+')
  | (?P<number>\d[\w.]*(?:[eEpP][+-]\d+)?)
  | (?P<name>[A-Za-z_]\w*)
  | (?P<operator><<=|>>=|<=>|->\*|\.\.\.|::|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|.)
    """,
    re.VERBOSE | re.DOTALL,
)

_RELATIONS = {
    "<": ("<=", ">="),
    "<=": ("<", ">"),
    ">": (">=", "<="),
    ">=": (">", "<"),
    "==": ("!=",),
    "!=": ("==",),
}
_ARITHMETIC = {"+": "-", "-": "+", "*": "/", "/": "*", "%": "*"}
_BITS = {"&": "|", "|": "&", "^": "&", "<<": ">>", ">>": "<<"}
_LOGIC = {"&&": "||", "||": "&&"}
_STEPS = {"++": "--", "--": "++", "+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=", "|=": "&=", "&=": "|="}
_ASSIGNMENTS = {"=", "+=", "-=", "*=", "/=", "%=", "&=", "|=", "^=", "<<=", ">>="}

# Words that begin a statement that is no call and no assignment.
_NO_EXPRESSION = {
    "auto", "break", "case", "catch", "const", "constexpr", "continue", "default", "do", "else", "for", "goto", "if",
    "public", "private", "protected", "return", "static", "static_assert", "struct", "switch", "template", "throw",
    "try", "typedef", "using", "while",
}  # fmt: skip
# Words before a bracket that holds no arguments.
_NO_CALL = {"if", "while", "for", "switch", "catch", "sizeof", "static_assert", "return", "assert", "decltype"}


def tokens(source):
    """The tokens of a source, without comments and preprocessor directives."""
    position = 0
    result = []
    while position < len(source):
        match = _TOKEN.match(source, position)
        kind = match.lastgroup
        if kind not in ("space", "directive"):
            result.append(Token(kind, match.group(), match.start(), match.end()))
        position = match.end()
    return result


class _Source:
    def __init__(self, file, source):
        self.file = file
        self.source = source
        self.tokens = tokens(source)
        self.partner = {}  # index of a bracket -> index of its partner
        self.inside = []  # for each token: the kind of the innermost brace
        self.asserted = set()  # tokens within a static_assert
        self._read_brackets()

    def _read_brackets(self):
        opened = []
        braces = []
        for index, token in enumerate(self.tokens):
            if token.kind == "operator" and token.text in "([{":
                opened.append(index)
                if token.text == "{":
                    braces.append(self._brace_kind(index, braces))
            self.inside.append(braces[-1] if braces else "file")
            if token.kind == "operator" and token.text in ")]}":
                begin = opened.pop()
                self.partner[begin] = index
                self.partner[index] = begin
                if token.text == "}":
                    braces.pop()
                if begin > 0 and self.tokens[begin - 1].text == "static_assert":
                    self.asserted.update(range(begin, index))

    def _brace_kind(self, index, braces):
        """What a brace opens: a block of statements, a scope of declarations, or a list of values."""
        before = self.tokens[index - 1].text if index else ";"
        if braces and braces[-1] == "values":
            return "values"
        begin = index
        while begin > 0 and self.tokens[begin - 1].text not in (";", "{", "}"):
            begin -= 1
        head = {token.text for token in self.tokens[begin:index]}
        if "enum" in head:
            return "values"
        if "namespace" in head or (head & {"class", "struct", "union"} and ")" not in head):
            return "declarations"
        if before in (")", "const", "noexcept", "override", "else", "do", "try", ";", "{", "}", ":"):
            return "block"
        return "values"

    def spaced(self, index):
        """A binary operator, told by the spaces around it."""
        token = self.tokens[index]
        return self.source[max(token.start - 1, 0)].isspace() and self.source[token.end : token.end + 1].isspace()

    def change(self, kind, first, last, text):
        return Mutation(self.file, kind, self.tokens[first].start, self.tokens[last].end, text)

    def slice(self, first, last):
        return self.source[self.tokens[first].start : self.tokens[last].end]

    # One method for each family of changes.

    def operators(self):
        for index, token in enumerate(self.tokens):
            if token.kind != "operator" or index in self.asserted:
                continue
            if token.text in _STEPS:
                yield self.change("step", index, index, _STEPS[token.text])
            if token.text == "!":
                yield self.change("removed negation", index, index, "")
            if not self.spaced(index) or self.tokens[index - 1].text == "operator":
                continue
            for new in _RELATIONS.get(token.text, ()):
                yield self.change("relation", index, index, new)
            for kind, table in (("arithmetic", _ARITHMETIC), ("bits", _BITS), ("logic", _LOGIC)):
                if token.text in table:
                    yield self.change(kind, index, index, table[token.text])

    def constants(self):
        for index, token in enumerate(self.tokens):
            if index in self.asserted:
                continue
            if token.kind == "number":
                for new in _other_numbers(token.text):
                    yield self.change("number", index, index, new)
                before = self.tokens[index - 1]
                if before.text == "-" and not self.spaced(index - 1):
                    yield self.change("sign", index - 1, index, token.text)
            elif token.kind == "character" and len(token.text) == 3:
                yield self.change("character", index, index, "'" + chr(ord(token.text[1]) + 1) + "'")
            elif token.kind == "text" and len(token.text) > 2:
                yield self.change("text", index, index, '"~' + token.text[1:])
            elif token.text in ("true", "false"):
                yield self.change("truth", index, index, "false" if token.text == "true" else "true")
            elif token.text == "continue":
                yield self.change("jump", index, index, "break")

    def statements(self):
        """The statements of all blocks, as index of the first token and of the semicolon."""
        first = None
        depth = 0
        for index, token in enumerate(self.tokens):
            if self.inside[index] != "block":
                # Values within a statement belong to it.
                continue
            if token.text in ("(", "["):
                depth += 1
            elif token.text in (")", "]"):
                depth -= 1
            if depth == 0 and token.text in ("{", "}") and token.kind == "operator":
                first = None
                continue
            if first is None:
                first = index
            if depth == 0 and token.text == ":" and self.tokens[first].text in ("case", "default"):
                first = None
            elif depth == 0 and token.text == ";":
                yield first, index
                first = None

    def removed_statements(self):
        for first, last in self.statements():
            if self._is_expression(first, last):
                yield self.change("removed statement", first, last, ";")

    def _is_expression(self, first, last):
        if self.tokens[first].text in _NO_EXPRESSION or first == last:
            return False
        index = first
        while index < last:
            token = self.tokens[index]
            if token.text in _ASSIGNMENTS or token.text in ("<<", ">>"):
                return True
            if token.text in ("(", "[", "{"):
                index = self.partner[index]
            elif index > first and token.kind == "name":
                before = self.tokens[index - 1]
                # A type and a name: a declaration.
                if before.kind == "name" and before.text not in ("new", "delete"):
                    return False
                if before.text in (">", "*", "&") and index - 1 > first:
                    return False
            index += 1
        return True

    def conditions(self):
        for index, token in enumerate(self.tokens):
            if token.text not in ("if", "while") or self.tokens[index + 1].text != "(":
                continue
            end = self.partner[index + 1]
            if any(part.text == "=" for part in self.tokens[index + 1 : end]):
                continue  # a declaration
            condition = self.slice(index + 2, end - 1)
            yield self.change("negated condition", index + 1, end, "(!(" + condition + "))")

    def results(self):
        for first, last in self.statements():
            if self.tokens[first].text != "return" or last == first + 1:
                continue
            value = self.slice(first + 1, last - 1)
            if value == "G_SOURCE_REMOVE":
                yield self.change("result", first + 1, last - 1, "G_SOURCE_CONTINUE")
            elif value not in ("nullptr", "true", "false", "std::nullopt", "{}", "*this") and not re.match(
                r"-?\d+$", value
            ):
                yield self.change("result", first + 1, last - 1, "{}")

    def arguments(self):
        for index, token in enumerate(self.tokens):
            if token.text != "(" or self.inside[index] != "block" or index in self.asserted:
                continue
            before = self.tokens[index - 1]
            if not (before.kind == "name" and before.text not in _NO_CALL or before.text == ">"):
                continue
            parts = self._split(index)
            for (first, last), (next_first, next_last) in zip(parts, parts[1:]):
                one, two = self.slice(first, last), self.slice(next_first, next_last)
                if one == two or '"' in (one[0], two[0]) or "__func__" in (one, two):
                    continue
                between = self.source[self.tokens[last].end : self.tokens[next_first].start]
                yield self.change("swapped arguments", first, next_last, two + between + one)

    def _split(self, opened):
        """The arguments between a bracket and its partner, as index of the first and last token."""
        parts = []
        first = index = opened + 1
        while index < self.partner[opened]:
            text = self.tokens[index].text
            if text in ("(", "[", "{"):
                index = self.partner[index]
            elif text == ",":
                parts.append((first, index - 1))
                first = index + 1
            index += 1
        if first < index:
            parts.append((first, index - 1))
        return parts


def _other_numbers(text):
    match = re.fullmatch(r"(0[xX])?([0-9a-fA-F]+?)([uUlL]*)", text)
    if match:
        prefix, digits, suffix = match.group(1) or "", match.group(2), match.group(3)
        base = 16 if prefix else 10
        value = int(digits, base)
        form = "{:x}" if prefix else "{}"
        new = [value + 1] + ([0] if value > 1 else [])
        return [prefix + form.format(number) + suffix for number in new]
    match = re.fullmatch(r"(\d+)(\.\d+)([fF]?)", text)
    if match:
        return [str(int(match.group(1)) + 1) + match.group(2) + match.group(3)]
    return []


def mutations(file, source):
    """All changes of one source, in the order of their places."""
    read = _Source(file, source)
    found = []
    for family in (
        read.operators,
        read.constants,
        read.removed_statements,
        read.conditions,
        read.results,
        read.arguments,
    ):
        found.extend(family())
    return sorted(set(found), key=lambda change: (change.start, change.end, change.text))
