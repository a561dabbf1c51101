"""The real server in a directory of its own, with its own configuration and ports."""

import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time

PROGRAM = os.environ.get("ORX_PROGRAM", "orx")
LONG = os.environ.get("ORX_LONG", "0") == "1"

# What every test needs; a test's own settings go on top.
DEFAULTS = {
    "SERVER": {"ListenIp": "127.0.0.1", "AuthType": "0"},
    "INTEROP": {"StandardPushers": "1", "StandardPlayers": "1"},
    "GUARD": {"SurvivePeerFaults": "1", "RunUnprivileged": "1"},
}
FAULTS = ("Sanitizer", "runtime error:", "ssertion", "SIGSEGV", "unknown event")
PAIRS = 40  # UDP port pairs of one server


def wait_for(condition, seconds=20.0, step=0.02):
    """Waits until condition() is true and returns what it gave; its last value when time is up."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value or time.monotonic() > end:
            return value
        time.sleep(step)


def free_tcp_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def udp_range():
    """Media ports below the range that the kernel hands out, apart from those of tests that run beside."""
    return 10000 + os.getpid() % 250 * 2 * PAIRS


class Stat:
    """What the console's "stat" tells."""

    def __init__(self, text):
        head = re.search(r"TaskNum=(\d+), Lives=(\d+), Clients=(\d+), Monitors=(\d+)\.", text)
        self.tasks, self.lives, self.clients, self.monitors = map(int, head.groups())
        self.sessions = re.findall(r"^\d+: (.*)\t(.*)\t(.*)\t([01])\r?$", text, re.M)

    def __repr__(self):
        return "tasks=%d lives=%d clients=%d monitors=%d %r" % (
            self.tasks, self.lives, self.clients, self.monitors, self.sessions)


class Server:
    def __init__(self):
        self.dir = tempfile.mkdtemp(prefix="orx-interop-")
        self.log = os.path.join(self.dir, "server.log")
        self.settings = {name: dict(keys) for name, keys in DEFAULTS.items()}
        start = udp_range()
        self.set("SERVER", UdpStartPort=start, UdpEndPort=start + 2 * PAIRS)
        self.process = None
        self.port = 0
        self.host = "127.0.0.1"  # in its URLs

    def set(self, section, **keys):
        self.settings.setdefault(section, {}).update({k: str(v) for k, v in keys.items()})

    def _spawn(self):
        self.port = free_tcp_port()
        self.set("SERVER", ListenPort=self.port)
        config = os.path.join(self.dir, "orx.cfg")
        with open(config, "w") as f:
            for name, keys in self.settings.items():
                f.write("[%s]\n%s\n" % (name, "\n".join("%s=%s" % item for item in keys.items())))
        with open(self.log, "w") as out:
            self.process = subprocess.Popen(
                [PROGRAM, "-c", config], stdin=subprocess.PIPE, stdout=out, stderr=subprocess.STDOUT, cwd=self.dir)

    def start(self):
        for _ in range(5):  # the port was free a moment ago; somebody else may have been faster
            self._spawn()
            if not wait_for(lambda: "Enter command:" in self.output() or self.process.poll() is not None):
                break
            if "Listen error" not in self.output() and self.process.poll() is None:
                return self
            self.kill()
        raise AssertionError("the server does not start:\n" + self.output())

    def output(self):
        with open(self.log, errors="replace", newline="") as f:
            return f.read()

    def url(self, name="live/cam", credentials=""):
        return "rtsp://%s%s:%d/%s" % (credentials + "@" if credentials else "", self.host, self.port, name)

    def stat(self):
        """Asks the console."""
        begin = len(self.output())
        self.process.stdin.write(b"stat\n")
        self.process.stdin.flush()

        def answer():
            text = self.output()[begin:]
            self.last = Stat(text) if re.search(r"Lives=.*\.\r?\n", text) else None
            return self.last and len(self.last.sessions) >= self.last.lives + self.last.clients

        if not wait_for(answer, 10):
            raise AssertionError("no answer to stat:\n" + self.output()[-2000:])
        return self.last

    def wait_stat(self, condition):
        """Asks until condition(stat) holds; the last answer."""
        wait_for(lambda: condition(self.stat()), step=0.1)
        return self.last

    def descriptors(self):
        return sorted(os.readlink(entry.path) for entry in os.scandir("/proc/%d/fd" % self.process.pid))

    def quit(self):
        """Ends it as a user does, unless it has ended; its exit status."""
        if not self.process:
            return 0
        try:
            self.process.communicate(b"quit\n" if self.process.poll() is None else None, 20)
        except subprocess.TimeoutExpired:
            self.kill()
            return "does not end"
        return self.process.returncode

    def kill(self):
        if self.process and self.process.poll() is None:
            self.process.send_signal(signal.SIGKILL)
            self.process.wait()

    def faults(self):
        """Lines of its output that tell of a fault of its own."""
        return [line for line in self.output().splitlines() if any(word in line for word in FAULTS)]

    def remove(self):
        shutil.rmtree(self.dir, ignore_errors=True)
