"""The documents: README.md and docs/*.md, their blocks of code and what the comments before these ask of the test."""

import glob
import os
import re
import shlex

ROOT = os.path.realpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../.."))


def paths():
    return ["README.md"] + sorted(os.path.relpath(path, ROOT) for path in glob.glob(os.path.join(ROOT, "docs/*.md")))


def lines_of(path):
    with open(os.path.join(ROOT, path), encoding="utf-8") as f:
        return f.read().splitlines()


class Marker:
    """<!-- test: WORD... KEY=VALUE... -->, or <!-- test: not run: REASON -->"""

    def __init__(self, text):
        text = re.sub(r"^<!-- test:\s*|\s*-->\s*$", "", text)
        reason = re.match(r"not run: *(.+)", text)
        self.reason = reason.group(1) if reason else None
        words = [] if reason else shlex.split(text)
        self.words = {word for word in words if "=" not in word}
        self.values = dict(word.split("=", 1) for word in words if "=" in word)


class Block:
    """A block of code: where it stands, the heading of second order above it, its language, lines and marker."""

    def __init__(self, path, line, section, language, marker):
        self.place = "%s:%d" % (path, line)
        self.path, self.section, self.language, self.marker = path, section, language, Marker(marker)
        self.lines = []

    def commands(self):
        """Its command lines; one that ends in a backslash goes on in the next."""
        whole = re.sub(r"\\\n\s*", "", "\n".join(self.lines)).splitlines()
        return [line for line in whole if line.strip() and not line.lstrip().startswith("#")]


def blocks(path):
    found, block, section, marker = [], None, "", ""
    for number, line in enumerate(lines_of(path), 1):
        if line.startswith("```"):
            if block:
                found.append(block)
                block = None
            else:
                block = Block(path, number, section, line[3:].strip(), marker)
            marker = ""
        elif block:
            block.lines.append(line)
        elif line.startswith("## "):
            section = line[3:]
        elif line.startswith("<!-- test:") or (marker and "-->" not in marker):
            marker += line + " "
    return found
