#!/usr/bin/env python3
"""metrics.py < TEXT: checks metrics by the rules of Prometheus' text format, and of its names."""
import re
import sys

LABELS = r'\{(?:[a-z_]+="(?:[^"\\\n]|\\[\\"n])*",?)*\}'
SAMPLE = re.compile(r'([a-z_][a-z0-9_]*)(' + LABELS + r')? (-?[0-9.]+(?:e[+-]?[0-9]+)?|NaN)$')
helped, types, seen = set(), {}, set()
text = sys.stdin.read()
if not text.endswith("\n"):
    sys.exit("the last line has no end")
for line in text[:-1].split("\n"):
    words = line.split(" ", 3)
    if words[:2] == ["#", "HELP"]:
        if words[2] in helped or len(words) < 4:
            sys.exit(f"told twice or not at all: {line}")
        helped.add(words[2])
        continue
    if words[:2] == ["#", "TYPE"]:
        if words[2] not in helped or words[3] not in ("counter", "gauge"):
            sys.exit(f"without HELP, or no type: {line}")
        if (words[3] == "counter") != words[2].endswith("_total"):
            sys.exit(f"counters end in _total, and they alone: {line}")
        types[words[2]] = words[3]
        continue
    sample = SAMPLE.match(line)
    if not sample or sample[1] not in types or not sample[1].startswith("orx_"):
        sys.exit(f"no sample, or without TYPE: {line}")
    if (sample[1], sample[2]) in seen:
        sys.exit(f"twice: {line}")
    seen.add((sample[1], sample[2]))
    if re.search(r"_(ms|milliseconds|kb|mb|kbit)(_|$)", sample[1]):
        sys.exit(f"not in base units: {line}")
