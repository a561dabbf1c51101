"""Links of the documents lead to files and headings that exist, every page and program stands in the README, and no
block of commands is called otherwise than commands.py looks for.   links.py BUILD_DIR"""

import os
import re
import sys

from documents import ROOT, blocks, lines_of, paths

LANGUAGES = ("", "sh", "ini", "json", "yaml", "text")


def anchors(path):
    """The names that headings get: lower case, blanks to '-', no punctuation."""
    found, code = set(), False
    for line in lines_of(path):
        code ^= line.startswith("```")
        if line.startswith("#") and not code:
            found.add(re.sub(r"[^\w\- ]", "", line.lstrip("#").strip().lower()).replace(" ", "-"))
    return found


def wrong_links(path):
    text = re.sub(r"^```.*?^```", "", "\n".join(lines_of(path)), flags=re.M | re.S)
    for target in re.findall(r"\]\(([^)\s]+)\)|(?:src|srcset)=\"([^\"]+)\"", text):
        target = target[0] or target[1]
        if re.match(r"[a-z]+:", target):
            continue
        name, _, anchor = target.partition("#")
        file = os.path.normpath(os.path.join(os.path.dirname(path), name)) if name else path
        if not os.path.exists(os.path.join(ROOT, file)):
            yield "%s: %s is not there" % (path, target)
        elif anchor and anchor not in anchors(file):
            yield "%s: %s has no such heading" % (path, target)


def indented_code(path):
    """Code by indentation, which commands.py would not see. What goes on with an item of a list is none."""
    before, code, item = "", False, False
    for number, line in enumerate(lines_of(path), 1):
        code ^= line.startswith("```")
        if line and not line.startswith(" "):
            item = bool(re.match(r"([-*]|\d+\.) ", line))
        if not code and not item and not before and line.startswith("    "):
            yield "%s:%d: code without a fence" % (path, number)
        before = line


def main(build):
    wrong = [text for path in paths() for text in wrong_links(path)]
    readme = "\n".join(lines_of("README.md"))
    pages = [path for path in paths() if path != "README.md"]
    wrong += ["README.md: no link to " + path for path in pages if "(%s" % path not in readme]
    tools = {name for name in os.listdir(os.path.join(ROOT, "tools")) if name.startswith("orx")}
    built = {name for name in os.listdir(os.path.join(build, "bin")) if name in tools}
    wrong += ["README.md: %s is not in the table of programs" % name for name in sorted(built)
              if "| `%s` |" % name not in readme]
    wrong += ["%s: \"%s\" is none of %s" % (block.place, block.language, " ".join(LANGUAGES).strip())
              for path in paths() for block in blocks(path) if block.language not in LANGUAGES]
    wrong += [text for path in paths() for text in indented_code(path)]
    print("\n".join(wrong) or "%d documents, every link leads somewhere" % len(paths()))
    return 1 if wrong else 0


sys.exit(main(sys.argv[1]))
