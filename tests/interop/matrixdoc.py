"""The results of the matrix, kept from run to run, and the document for people who look rather than read."""

import json
import os
import subprocess
import time


def said_by(*argv):
    """The first line that a program says of its version."""
    done = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    return done.stdout.splitlines()[0].split(" Copyright")[0] if done.stdout else argv[0]


class Results:
    def __init__(self, doc, rows, columns, known):
        self.doc, self.file = doc, os.path.splitext(doc)[0] + ".json"
        self.rows, self.columns, self.known = rows, columns, known
        self.data = {"versions": [], "rows": {}, "replies": {}}
        if os.path.exists(self.file):
            with open(self.file) as f:
                self.data = json.load(f)

    def add(self, row, cell, result):
        entry = self.data["rows"].setdefault(row, {"cells": {}})
        entry["cells"][cell] = result
        entry["run"] = "%s %s" % (time.strftime("%Y-%m-%d"), said_by("git", "rev-parse", "--short", "HEAD"))

    def write(self):
        with open(self.file, "w") as f:
            json.dump(self.data, f, indent=0, sort_keys=True)
            f.write("\n")
