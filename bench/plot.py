#!/usr/bin/env python3
"""Draws what scripts/bench.sh and scripts/instructions.sh --growth print, as an SVG on standard output.

Left, how the instructions for a delivered packet grow with players, programs and connections; right, the processor time
for a delivered gigabyte beside that of a loop that only sends, from the rows of one program."""
import argparse
import math
import sys

WIDTH, HEIGHT = 960, 420
TOP, BOTTOM = 70, 350
COLOURS = ["#0969da", "#cf222e", "#1a7f37", "#8250df", "#9a6700"]
NAMES = {
    "players": "players of a program",
    "programs": "programs of 10 players",
    "silent": "silent programs beside",
    "idle": "idle connections beside",
}


def read(paths):
    """Lines of points by panel and name: {0: {name: [(x, y)]}, 1: {...}}."""
    panels = {0: {}, 1: {}}
    for path in paths:
        with open(path, encoding="utf-8") as lines:
            for words in map(str.split, lines):
                if len(words) == 3 and words[0] in NAMES:
                    panels[0].setdefault(NAMES[words[0]], []).append((float(words[1]), float(words[2])))
                elif len(words) > 6 and words[0] in ("tcp", "udp") and words[2:4] == ["1960", "1"]:
                    for name, y in (("Orx", words[4]), ("bare loop", words[5])):
                        panels[1].setdefault(f"{words[0].upper()}, {name}", []).append((float(words[1]), float(y)))
    return panels


def round_up(value):
    step = 10 ** math.floor(math.log10(value))
    return next(step * k for k in (1, 2, 3, 4, 5, 6, 8, 10) if step * k >= value)


def text(x, y, words, anchor="start", colour="#1f2328", size=13):
    return f'  <text x="{x:.0f}" y="{y:.0f}" text-anchor="{anchor}" fill="{colour}" font-size="{size}">{words}</text>'


def panel(left, right, title, below, lines):
    """One diagram with a logarithmic axis to the right and one from 0 upwards."""
    points = [point for line in lines.values() for point in line]
    decades = max(1, math.ceil(math.log10(max(x for x, _ in points))))
    top = round_up(max(y for _, y in points))

    def across(x):
        return left + (right - left) * math.log10(x) / decades

    def up(y):
        return BOTTOM - (BOTTOM - TOP) * y / top

    out = [text(left, 30, title, size=15)]
    for i in range(5):
        y = top * i / 4
        out.append(f'  <path d="M{left} {up(y):.1f}H{right}" stroke="#d0d7de"/>')
        out.append(text(left - 8, up(y) + 4, f"{y:g}", "end"))
    for i in range(decades + 1):
        out.append(text(across(10**i), BOTTOM + 20, f"{10**i:,}", "middle"))
    out.append(text((left + right) / 2, BOTTOM + 44, below, "middle"))
    for i, (name, line) in enumerate(lines.items()):
        colour = COLOURS[i % len(COLOURS)]
        path = " ".join(f"{across(x):.1f},{up(y):.1f}" for x, y in sorted(line))
        out.append(f'  <polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
        out += [f'  <circle cx="{across(x):.1f}" cy="{up(y):.1f}" r="3" fill="{colour}"/>' for x, y in line]
        out.append(text(right, TOP + 16 + 18 * i, name, "end", colour))
    return out


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("files", nargs="+", metavar="FILE", help="what one of the two has printed")
    try:
        panels = read(parser.parse_args().files)
    except OSError as error:
        sys.exit(f"plot: {error}")
    if not panels[0] or not panels[1]:
        sys.exit("plot: the files have no lines of growth, or no rows of one program at 1960 kbit/s")
    print(
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" width="{WIDTH}" height="{HEIGHT}" '
        'role="img" aria-labelledby="title" font-family="system-ui, sans-serif">\n'
        '  <title id="title">How the cost of a packet grows with players, programs and connections</title>\n'
        f'  <rect width="{WIDTH}" height="{HEIGHT}" rx="12" fill="#ffffff" stroke="#d0d7de"/>'
    )
    print("\n".join(panel(70, 450, "instructions for a delivered packet", "how many there are", panels[0])))
    print("\n".join(panel(550, 930, "processor seconds for a delivered gigabyte", "players", panels[1])))
    print("</svg>")


main()
