"""The results of the matrix, kept from run to run, and the document for people who look rather than read."""

import json
import os
import subprocess
import time

import conformance

TOP = """# Every encoder, every player

Made by `tests/interop/matrix.py --all --write docs/interop.md` from real runs on loopback, with the configuration as it
is shipped (`[INTEROP]` keys as in [cfg/orx.cfg](../cfg/orx.cfg)); changes by hand are lost. Six players run at a time on
two cores, which the times to the first picture include. How to run parts of it: [tools.md](tools.md#the-matrix);
how to push and play by hand: [recipes.md](recipes.md).
"""
LEGEND = """A cell stands for TCP · UDP · HTTP tunnel, an exported one for MP4 · MKV.

| mark | means |
|---|---|
| `0.3` | works: the pictures are, sum for sum, those that were pushed, from a key picture on without a hole; the first came after so many seconds, the start of the player included |
| `✓` | works, where no time is told |
| `♪ +3` | the sound is there, and so many milliseconds later than the pictures; 40 are allowed |
| `✗2` | does not work, for the second of the causes below |
| `✗` | does not work, and the cause is not known: a fault |

"Copy" is `ffmpeg -c copy` to a file, as recorders do it: it begins in the middle of a group of pictures, the pusher is
killed and comes back, and the stamps in the file rise strictly over both. Recordings are played from the third second of
eight to their end, by rtspsrc from their begin."""
TITLES = {"live": "Live", "recorded": "Recorded, with a seek", "exported": "Exported by `orxzmf export`"}
REPLIES = """## Replies to each method

One request on a connection in each state, over TCP, UDP and, for players, the HTTP tunnel; where they differ, each is
named. Every reply has the request's CSeq, and the connection is kept, unless a cell says otherwise. Nobody is logged in, and
recording by request is off. 500 is the reply to what is not implemented.
"""


def said_by(*argv):
    """The first line that a program says of its version."""
    done = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    return done.stdout.splitlines()[0].split(" Copyright")[0] if done.stdout else argv[0]


class Results:
    def __init__(self, doc, rows, columns, known):
        self.doc, self.file = doc, os.path.splitext(doc)[0] + ".json"
        self.rows, self.columns, self.known = rows, columns, known
        self.data = {"rows": {}, "replies": {}}
        if os.path.exists(self.file):
            with open(self.file) as f:
                self.data = json.load(f)

    def add(self, row, cell, result):
        entry = self.data["rows"].setdefault(row, {"cells": {}})
        entry["cells"][cell] = result
        entry["run"] = "%s, %s" % (time.strftime("%Y-%m-%d"), said_by("git", "rev-parse", "--short", "HEAD"))

    def changed_replies(self, replies):
        """What replies are not as they were, in words; they are noted."""
        old, self.data["replies"] = self.data["replies"], replies
        return ["%s %s: %s, was %s" % (method, state, got, old[method].get(state)) for method, states in replies.items()
                for state, got in states.items() if method in old and old[method].get(state) != got]

    def _cell(self, row, mode, player):
        """The cell of all transports of a player: marks, and below them the sound."""
        marks, sounds = [], []
        for transport in [t for p, t in self.columns[mode] if p == player]:
            key = "%s/%s-%s" % (mode, player, transport)
            found = self.data["rows"][row]["cells"].get(key)
            if not found:
                marks.append("–")
                continue
            cause = self.known("%s/%s" % (row, key), found["why"]) if "why" in found else None
            marks.append("%.1f" % (found["first"] / 1000) if cause is None and found.get("first") and mode != "exported" else
                         "✓" if cause is None else "✗%s" % (cause or ""))
            sounds += ["%+d" % found["skew"]] if found.get("skew") is not None else []
        return " · ".join(marks) + ("<br>♪ " + " · ".join(sounds) if sounds else "")

    def _table(self, mode):
        players = list(dict.fromkeys(p for p, _ in self.columns[mode]))
        yield "| pusher | %s |" % " | ".join(players)
        yield "|---" * (len(players) + 1) + "|"
        for row in self.rows:
            if row in self.data["rows"]:
                yield "| %s | %s |" % (row, " | ".join(self._cell(row, mode, p) for p in players))

    def text(self, causes):
        runs = {}
        for row, entry in self.data["rows"].items():
            runs.setdefault(entry["run"], []).append(row)
        yield TOP
        for run, rows in runs.items():
            yield "* Run of %s: %s." % (run, "all rows" if len(rows) == len(self.rows) else ", ".join(rows))
        yield "* With %s.\n" % ", ".join(self.data["versions"])
        yield LEGEND
        for mode, title in TITLES.items():
            yield "\n## %s\n" % title
            yield from self._table(mode)
        yield "\n## What does not work, and why\n"
        yield from ("%d. %s" % item for item in enumerate(causes, 1))
        yield REPLIES
        yield from conformance.rows(self.data["replies"])

    def write(self, causes):
        self.data["versions"] = [said_by("ffmpeg", "-version"), said_by("mpv", "--version"), said_by("gst-launch-1.0", "--version")]
        with open(self.file, "w") as f:
            json.dump(self.data, f, indent=0, sort_keys=True)
            f.write("\n")
        with open(self.doc, "w") as f:
            f.write("\n".join(self.text(causes)) + "\n")
