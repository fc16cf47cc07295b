"""Finds the places in a C++ source that tests cannot reach, for scripts/coverage and scripts/mutate.

Only a bug could make a QUORVEL_ASSERT fail or a QUORVEL_NEVER hold. If the whole condition of an `if`
is a QUORVEL_NEVER, only a bug could reach its body.

Two kinds of comment give the reason why tests don't reach some code, or don't notice a change in it:

    // not reached in tests: REASON
    // mutation: REASON

The comment is at the end of a line of code, or on a line before the code. It covers the code from that
line to the line that ends the statement or opens a block.
"""

import bisect
import re

NOT_REACHED = "not reached in tests"
MUTATION = "mutation"

NOTE = re.compile(r"[ \t]*//[ \t]*(%s|%s):[ \t]+(\S.*)" % (NOT_REACHED, MUTATION))
IGNORED = re.compile(
    r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])\'|^[ \t]*#(?:\\\n|[^\n])*',
    re.S | re.M)
MACRO = re.compile(r"\bQUORVEL_(ASSERT|NEVER)\(")
CLOSING = {"(": ")", "{": "}"}


def blank(text):
    """Returns the text with spaces in place of comments, literals and preprocessor lines."""
    return IGNORED.sub(lambda match: re.sub(r"[^\n]", " ", match.group()), text)


def closing(code, opening):
    """Returns the offset of the bracket that closes the one at `opening`."""
    depth = 0
    for place in range(opening, len(code)):
        if code[place] == code[opening]:
            depth += 1
        elif code[place] == CLOSING[code[opening]]:
            depth -= 1
        if depth == 0:
            return place
    raise ValueError("brackets don't match")


def without_notes(text):
    return NOTE.sub("", text)


class Note:
    def __init__(self, kind, reason, first, last, block):
        self.kind = kind
        self.reason = reason
        self.lines = range(first, last + 1)  # the statement, up to a block that it opens
        self.block = block  # the lines inside that block


class Source:
    """Lines are counted from 1, offsets from 0."""

    def __init__(self, text):
        self.text = text
        self.code = blank(text)
        self.lines = text.splitlines()
        self.code_lines = self.code.splitlines()
        self.starts = [0] + [match.end() for match in re.finditer("\n", text)]
        self.untestable = []  # where a change goes unnoticed: pairs of offsets
        self.branchless = set()  # lines of QUORVEL_ASSERT and QUORVEL_NEVER
        self.unreachable = set()  # lines of the bodies of `if (QUORVEL_NEVER(...))`
        for match in MACRO.finditer(self.code):
            self._read_macro(match)
        self.notes = list(self._read_notes())

    def line_at(self, offset):
        return bisect.bisect_right(self.starts, offset)

    def _read_macro(self, match):
        start, end = match.start(), closing(self.code, match.end() - 1) + 1
        statement_end = re.compile(r"\s*;").match(self.code, end)
        if match.group(1) == "ASSERT" and statement_end:
            end = statement_end.end()  # so that the statement is not left out either
        self.untestable.append((start, end))
        self.branchless.update(range(self.line_at(start), self.line_at(end - 1) + 1))
        opening = re.compile(r"\)\s*\{").match(self.code, end)
        is_whole_condition = re.search(r"\bif\s*\(\s*$", self.code[:start])
        if match.group(1) == "NEVER" and opening and is_whole_condition:
            body_end = closing(self.code, opening.end() - 1)
            self.untestable.append((opening.end(), body_end))
            self.unreachable.update(self._inside(opening.end() - 1, body_end))

    def _inside(self, opening, end):
        """Returns the lines between two brackets."""
        return range(self.line_at(opening) + 1, self.line_at(end))

    def _read_notes(self):
        for number, line in enumerate(self.lines, 1):
            match = NOTE.search(line)
            if not match:
                continue
            first = number
            while first <= len(self.lines) and not self.code_lines[first - 1].strip():
                first += 1
            if first > len(self.lines):
                continue
            reason = [match.group(2)]
            if first > number:
                for more in self.lines[number:first - 1]:
                    if NOTE.search(more) or not more.strip():
                        break
                    reason.append(more.strip().lstrip("/ "))
            last = first
            while last < len(self.lines) and not self._ends_statement(last):
                last += 1
            block = range(0)
            if self.code_lines[last - 1].rstrip().endswith("{"):
                opening = self.starts[last - 1] + self.code_lines[last - 1].rindex("{")
                block = self._inside(opening, closing(self.code, opening))
            yield Note(match.group(1), " ".join(reason), first, last, block)

    def _ends_statement(self, number):
        return self.code_lines[number - 1].rstrip().endswith((";", "{", "}", ":"))
