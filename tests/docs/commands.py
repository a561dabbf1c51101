"""Runs every command line of README.md and docs/*.md, taken from the text, in a copy of the source tree.
   commands.py BUILD_DIR [DOCUMENT...]      exit status 77: this machine allows no namespaces

Programs come from BUILD_DIR: a "cmake" in front of the real one builds nothing and installs from there. All runs in
namespaces of its own (network, processes, mounts), so that ports are those of the text and nothing is left behind.
Before each section the server and the demo program run with the shipped configuration, by scripts/run.sh.

A block of "sh" without a comment above it is run as one script and has to end with 0. The comment may say otherwise:
  <!-- test: push -->              each command line becomes a pusher whose pictures come; then it is interrupted
  <!-- test: play -->              each command line becomes a player, without a screen; then it is interrupted
  <!-- test: serves="TEXT" -->     each goes on running up to the end of the section once it has printed TEXT
  <!-- test: after="TEXT" -->      waits before until one of those has printed TEXT
  <!-- test: server -->            the command by which the server is started
  <!-- test: config -->            an "ini" block, whose lines go to the configuration, and the server starts anew
  <!-- test: stopped -->           a script that runs while the server does not
  <!-- test: expects="TEXT" -->    TEXT is in what it prints
  <!-- test: needs=PATH -->        not run where the tree (or out/) has no such file
  <!-- test: with="COMMANDS" -->   a script runs behind these, which make what it needs
  <!-- test: OLD=NEW -->           other words that are replaced, as HOST is by 127.0.0.1
  <!-- test: not run: REASON -->   what cannot be run; the reason is listed
"""

import os
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from documents import ROOT, blocks, paths

CMAKE = """#!/bin/sh
[ "$1" = --install ] || exit 0
shift 2
exec %s --install %s "$@"
"""
# Players show their pictures nowhere, whatever could show them here.
SCREENS = ("aasink", "cacasink", "dfbvideosink", "fbdevsink", "glimagesink", "gtkwaylandsink", "kmssink", "vulkansink",
           "waylandsink", "ximagesink", "xvimagesink")
ENVIRONMENT = {
    "GST_PLUGIN_FEATURE_RANK": ",".join(name + ":NONE" for name in SCREENS) + ",fakevideosink:PRIMARY",
    "SDL_VIDEODRIVER": "dummy", "SDL_AUDIODRIVER": "dummy", "PAGER": "cat", "TERM": "dumb", "AV_LOG_FORCE_NOCOLOR": "1",
}
SECONDS = 60  # that one command may take
MOST = 3000  # characters of what it printed are kept
WORDS = ("push", "play", "server", "config", "stopped")  # of markers


class Failure(Exception):
    pass


def wait_for(condition, seconds, step=0.05):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(step)
    return True


class Running:
    """A command line that runs, with what it has printed."""

    def __init__(self, site, command):
        self.file = tempfile.NamedTemporaryFile(dir=site.tmp, mode="r", errors="replace")
        self.process = subprocess.Popen(
            ["sh", "-ec", command], cwd=site.tree, env=site.env, stdin=subprocess.PIPE, stdout=self.file.fileno(),
            stderr=subprocess.STDOUT, start_new_session=True)

    def ended(self):
        return self.process.poll() is not None

    def output(self):
        with open(self.file.name, errors="replace", newline="") as f:
            return re.sub(r"[^\n]*\r(?!\n)", "", f.read())[-MOST:]  # of lines written over each other the last

    def stop(self, how=signal.SIGINT):
        """Ends it as a user does; whether it has ended by that."""
        if not self.ended():
            os.killpg(self.process.pid, how)
        if wait_for(self.ended, 10) and wait_for(self.alone, 10):
            return True
        self.kill()
        return False

    def alone(self):
        """Whether what it started has ended, too; this process is the parent of what it left behind."""
        try:
            os.waitpid(-self.process.pid, os.WNOHANG)
            return False
        except ChildProcessError:
            return True

    def kill(self):
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()


class Site:
    """A copy of the source tree in which the commands run, and the server there."""

    def __init__(self, build):
        self.tmp = tempfile.mkdtemp(prefix="orx-docs-")
        self.tree = os.path.join(self.tmp, "orx")
        shutil.copytree(ROOT, self.tree, symlinks=True, ignore=shutil.ignore_patterns("build", "out", ".git", "fuzz"))
        os.makedirs(os.path.join(self.tree, "build/run"))
        for name in ("release", "asan"):
            os.symlink(build, os.path.join(self.tree, "build", name))
        self.env = dict(os.environ, **ENVIRONMENT, HOME=self.tmp,
                        PATH="%s/bin:%s/out/bin:%s" % (self.tmp, self.tree, os.environ["PATH"]))
        self.stub("cmake", CMAKE % (shutil.which("cmake"), shlex.quote(build)))
        os.makedirs(os.path.join(self.tmp, ".config/mpv"))
        with open(os.path.join(self.tmp, ".config/mpv/mpv.conf"), "w") as f:
            f.write("vo=null\nao=null\n")
        self.server, self.services, self.start = None, [], "scripts/run.sh"
        self.shell("ffmpeg -v error -i tests/data/clip.h264 -c copy input.mp4; cp tests/data/clip.h264 long.h264; "
                   "mkdir pictures; ffmpeg -v error -i input.mp4 -t 2 -huffman default pictures/%03d.jpg")

    def stub(self, name, text):
        path = os.path.join(self.tmp, "bin", name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as f:
            f.write(text)
        os.chmod(path, 0o755)

    def path(self, name):
        return os.path.join(self.tree, "out", name)

    def log(self):
        try:
            with open(self.path("log/orx.log"), errors="replace") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def shell(self, command):
        """Runs it to its end, which has to be a good one; what it printed."""
        run = Running(self, command)
        ended = wait_for(run.ended, SECONDS)
        run.kill()
        if not ended:
            raise Failure("still runs after %d s:\n%s" % (SECONDS, run.output()))
        if run.process.returncode != 0:
            raise Failure("ended with %d:\n%s" % (run.process.returncode, run.output()))
        return run.output()

    # The server

    def serve(self):
        self.server = Running(self, self.start)
        demo = "CreateLiveProgram(Uri=/live/demo"
        begun = self.log().count(demo)
        if not wait_for(lambda: self.log().count(demo) > begun or self.server.ended(), 20) or self.server.ended():
            raise Failure("the server does not start:\n" + self.server.output())

    def end(self):
        if self.server:
            ended = self.server.stop(signal.SIGTERM)
            self.server = None
            if not ended:
                raise Failure("%s does not end" % self.start)

    def end_services(self):
        for service in self.services:
            service.stop()
        self.services = []

    def fresh(self):
        """A section begins: nothing runs but the server, with the shipped configuration."""
        self.end_services()
        shipped = os.path.join(ROOT, "cfg/orx.cfg")
        same = os.path.exists(self.path("cfg/orx.cfg")) and \
            open(shipped).read() == open(self.path("cfg/orx.cfg")).read()
        if self.server and same and not self.server.ended():
            return
        self.end()
        shutil.rmtree(self.path("cfg"), ignore_errors=True)
        self.serve()

    def configure(self, lines):
        """Puts the lines into the server's configuration, in place of those of the same key."""
        with open(self.path("cfg/orx.cfg")) as f:
            config = f.read()
        section = ""
        for line in lines:
            if line.startswith("["):
                section = line.strip()
            elif line.strip() and not line.startswith(";"):
                key = line.split("=")[0]
                config = re.sub(r"(?m)^%s=.*\n" % re.escape(key), "", config)
                config = config.replace(section + "\n", "%s\n%s\n" % (section, line), 1)
                if section not in config:
                    config += "\n%s\n%s\n" % (section, line)
        self.end()
        with open(self.path("cfg/orx.cfg"), "w") as f:
            f.write(config)
        self.serve()

    # What a command line has to do

    def until_logged(self, command, line, check):
        """Starts it, waits for a line of the log of the program that it names, and interrupts it."""
        name = re.search(r"rtsp[a-z]*://[^/\s]+(/[^\s'\"]+)", command)
        line = line % (name.group(1) if name else "").replace("%d", "1")
        begun = self.log().count(line)
        run = Running(self, command)
        seen = wait_for(lambda: self.log().count(line) > begun or run.ended(), 20) and self.log().count(line) > begun
        problem = None if seen else "no \"%s\" in the log" % line
        if seen:
            problem = check(run, name.group(1).replace("%d", "1"))
        if not run.stop():
            problem = problem or "does not end"
        if problem:
            raise Failure("%s:\n%s" % (problem, run.output()))
        return run.output()

    def push(self, command):
        def pictures(_run, path):
            self.shell("orxload --quiet --duration 0.2 'rtsp://127.0.0.1:8554%s'" % path)

        return self.until_logged(command, "CreateLiveProgram(Uri=%s)", pictures)

    def play(self, command):
        def stays(run, _path):
            wait_for(run.ended, 1)
            return "ended with %d" % run.process.returncode if run.ended() and run.process.returncode else None

        return self.until_logged(command, "CreatePlayClient(Uri=%s", stays)

    def service(self, command, text):
        run = Running(self, command)
        self.services.append(run)
        if not wait_for(lambda: text in run.output() or run.ended(), SECONDS) or text not in run.output():
            raise Failure("no \"%s\":\n%s" % (text, run.output()))
        return run.output()

    def run(self, block):
        marker = block.marker
        values = {"HOST": "127.0.0.1", **marker.values}
        unknown = marker.words.difference(WORDS)
        if unknown:
            raise Failure("unknown: " + " ".join(unknown))
        serves, expects, after, before = (values.pop(name, None) for name in ("serves", "expects", "after", "with"))
        values.pop("needs", None)

        def put(text):
            for old, new in values.items():
                text = re.sub(r"(?<!\w)%s(?!\w)" % re.escape(old), new, text)
            return text

        if after and not wait_for(lambda: any(after in service.output() for service in self.services), SECONDS):
            raise Failure("no \"%s\" before:\n%s" % (after, "".join(service.output() for service in self.services)))
        commands = [put(command) for command in block.commands()]
        if "server" in marker.words:
            self.end()
            self.start = commands[0]
            self.serve()
            printed = self.server.output()
        elif "config" in marker.words:
            self.configure([put(line) for line in block.lines])
            printed = ""
        elif serves:
            printed = "".join(self.service(command, serves) for command in commands)
        elif marker.words.intersection(("push", "play")):
            how = self.push if "push" in marker.words else self.play
            printed = "".join(how(command) for command in commands)
        else:
            if "stopped" in marker.words:
                self.end()
            elif not self.server:
                self.serve()
            printed = self.shell("\n".join([before or "", *map(put, block.lines)]))
        if expects and expects not in printed:
            raise Failure("no \"%s\":\n%s" % (expects, printed))


def reason_not_to_run(site, block):
    needs = block.marker.values.get("needs")
    if block.marker.reason or not needs:
        return block.marker.reason
    there = any(os.path.exists(os.path.join(site.tree, folder, needs)) for folder in ("", "out"))
    return None if there else "%s is not there" % needs


def run_documents(site, documents):
    """Runs their blocks; how many failed."""
    ran, failed, left, last = 0, 0, [], None
    for block in [block for path in documents for block in blocks(path)]:
        if block.language != "sh" and not block.marker.words:
            continue
        reason = reason_not_to_run(site, block)
        if reason:
            left.append("%s: not run: %s" % (block.place, reason))
            continue
        begun = time.monotonic()
        try:
            if "server" not in block.marker.words and last != (block.path, block.section):
                site.fresh()
            last = (block.path, block.section)
            site.run(block)
            ran += 1
            print("%5.1f s  %s" % (time.monotonic() - begun, block.place), flush=True)
        except Failure as failure:
            failed += 1
            print("FAILED   %s\n%s\n%s" % (block.place, "\n".join(block.lines), failure), flush=True)
    print("\n".join(left))
    print("%d blocks ran, %d failed, %d were not run" % (ran, failed, len(left)))
    return failed


def in_namespaces(arguments):
    """Runs this program again where it has network, processes and mounts of its own."""
    line = ["unshare", "--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
    if os.getuid() != 0:
        line[1:1] = ["--user", "--map-root-user"]
    if subprocess.run(line + ["true"], stderr=subprocess.DEVNULL).returncode != 0:
        print("no namespaces here")
        return 77
    return subprocess.run(line + [sys.executable, "-B", os.path.abspath(__file__), "--inside", *arguments]).returncode


def main(arguments):
    if arguments[0] != "--inside":
        return in_namespaces(arguments)
    subprocess.run("ip link set lo up; mount -t tmpfs none /opt", shell=True, check=True)
    site = Site(os.path.abspath(arguments[1]))
    try:
        return 1 if run_documents(site, arguments[2:] or paths()) else 0
    finally:
        site.end_services()
        site.end()
        shutil.rmtree(site.tmp, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
