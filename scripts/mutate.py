#!/usr/bin/env python3
"""Breaks the program on purpose, one fault at a time, and looks whether its tests notice.

Each section of tests/mutations/faults.ini is a fault: a text that stands in the sources once, what takes its place, and
the tests that must fail then, as a regular expression of ctest. The fault is built with the preset release, the tests
are run, and the file is put back, also after an interrupt. Exit status: 0 every fault was noticed, 1 some were not, 2 the
table does not fit the sources or the tests fail without a fault.
"""
import argparse
import configparser
import os
import pathlib
import re
import signal
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
TREE = ROOT / "build" / "release"
TABLE = ROOT / "tests" / "mutations" / "faults.ini"
LONGEST = 600  # seconds of one command


def read_table():
    table = configparser.RawConfigParser(delimiters=("=",), comment_prefixes=("#",), empty_lines_in_values=False)
    table.read(TABLE)
    return {name: dict(table[name]) for name in table.sections()}


def read_tests():
    """Every test that a fault may name: its name in ctest -> the program that holds it."""
    tests = {}
    for path in (ROOT / "tests").glob("**/*_test.cpp"):
        kind = path.relative_to(ROOT / "tests").parts[0]
        group = path.parent.name if kind == "unit" else path.stem[:-len("_test")]
        for suite, case in re.findall(r"^TEST(?:_F)?\((\w+), (\w+)\)", path.read_text(), re.M):
            tests["%s.%s.%s.%s" % (kind, group, suite, case)] = "%s_%s" % (kind, group)
    for path in (ROOT / "tests" / "fuzz").glob("*_fuzz.cpp"):
        tests["replay." + path.stem[:-len("_fuzz")]] = path.stem[:-len("_fuzz")] + "_replay"
    return tests


def place(fault):
    """The file of a fault and its text; exits when it does not stand in the sources once."""
    found = [(path, path.read_text()) for path in (ROOT / "src").glob("**/%s.cpp" % fault.get("module", "*"))]
    found = [(path, text) for path, text in found if fault["find"] in text]
    times = sum(text.count(fault["find"]) for _, text in found)
    if times != 1:
        sys.exit("this stands in the sources %d times: %s" % (times, fault["find"]))
    return found[0]


def targets(fault, tests):
    found = {target for name, target in tests.items() if re.search(fault["tests"], name)}
    return sorted(found | ({"orx"} if any(t.startswith("system_") for t in found) else set()))


def run(command, log):
    """Whether the command ends in time, and well."""
    log.write("+ %s\n" % " ".join(map(str, command)))
    log.flush()
    process = subprocess.Popen(command, stdout=log, stderr=log, stdin=subprocess.DEVNULL, start_new_session=True)
    try:
        return process.wait(LONGEST) == 0
    except BaseException as reason:  # a broken program may run in circles: it is ended, with what tests it
        os.killpg(process.pid, signal.SIGKILL)
        process.wait()
        if not isinstance(reason, subprocess.TimeoutExpired):
            raise
        return False


def build_and_test(fault, tests, log):
    """Returns "pass", "FAIL" or "no build"."""
    if not run(["cmake", "--build", TREE, "-j2", "--target", *targets(fault, tests)], log):
        return "no build"
    passed = run(["ctest", "--test-dir", TREE, "--no-tests=error", "-R", fault["tests"], "--output-on-failure",
                  "--stop-on-failure"], log)
    return "pass" if passed else "FAIL"


def try_fault(fault, tests, log):
    path, text = place(fault)
    try:
        path.write_text(text.replace(fault["find"], fault["with"]))
        return build_and_test(fault, tests, log)
    finally:
        path.write_text(text)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--list", action="store_true", help="print the faults and check that each finds its place")
    parser.add_argument("--only", metavar="NAME", action="append", help="this fault only; may be repeated")
    parser.add_argument("--no-baseline", action="store_true", help="do not first run the tests without a fault")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(2))
    table, tests = read_table(), read_tests()
    for name in options.only or []:
        if name not in table:
            sys.exit("no fault is named " + name)
    chosen = {name: fault for name, fault in table.items() if not options.only or name in options.only}
    for name, fault in chosen.items():
        path, _ = place(fault)
        if not targets(fault, tests):
            sys.exit("%s: no test is named %s" % (name, fault["tests"]))
        if options.list:
            print("%-28s %-34s %s" % (name, path.relative_to(ROOT), fault["tests"]))
    if options.list:
        return 0
    if not (TREE / "CMakeCache.txt").exists():
        subprocess.run(["cmake", "--preset", "release", "-DORX_UNITY=OFF"], cwd=ROOT, check=True)
    unnoticed = []
    with open(TREE / "mutations.log", "w") as log:
        everything = {"tests": "|".join(sorted({fault["tests"] for fault in chosen.values()}))}
        if not options.no_baseline and build_and_test(everything, tests, log) != "pass":
            sys.exit("the tests fail without a fault, see " + log.name)
        for name, fault in chosen.items():
            begin = time.monotonic()
            result = try_fault(fault, tests, log)
            if result != "FAIL":
                unnoticed.append(name)
            print("%-28s %-10s %3d s  %s" % (name, {"FAIL": "noticed", "pass": "UNNOTICED"}.get(result, result),
                                             time.monotonic() - begin, fault["tests"]), flush=True)
        print("%d of %d faults noticed" % (len(chosen) - len(unnoticed), len(chosen)))
    return 1 if unnoticed else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except SystemExit as end:
        if isinstance(end.code, str):
            print(end.code, file=sys.stderr)
            sys.exit(2)
        raise
