"""scripts/run.sh in a tree of its own, on a terminal of its own: what it starts ends with it, whatever ends it."""

import os
import pty
import re
import shutil
import signal
import socket
import stat
import subprocess
import tempfile
import time
import unittest
import urllib.request

SOURCE = os.path.join(os.path.dirname(__file__), "..", "..")
BIN = os.environ["ORX_BIN"]
# The build is played: it "installs" the programs of the tree under test.
CMAKE = """#!/bin/sh
case $1 in
--build) %(build)s ;;
--install) mkdir -p out/bin out/cfg out/log out/run; cp -n cfg/orx.cfg out/cfg
    for program in orx orxpush orxweb orxpull; do [ ! -f %(bin)s/$program ] || cp %(bin)s/$program out/bin; done ;;
*) mkdir -p build/run; : >build/run/CMakeCache.txt ;;
esac
"""


def wait_for(condition, seconds=30.0):
    end = time.monotonic() + seconds
    while not condition() and time.monotonic() < end:
        time.sleep(0.05)
    return condition()


class RunTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="orx-run-")
        with socket.socket() as s, socket.socket() as web:
            s.bind(("", 0))
            web.bind(("", 0))
            self.port, self.web = s.getsockname()[1], web.getsockname()[1]
        for name in ("scripts", "cfg", "path"):
            os.mkdir(os.path.join(self.dir, name))
        shutil.copy(os.path.join(SOURCE, "scripts/run.sh"), os.path.join(self.dir, "scripts"))
        with open(os.path.join(SOURCE, "cfg/orx.cfg")) as f:
            config = f.read().replace("ListenPort=8554", "ListenPort=%d" % self.port)
            config = config.replace("\nPort=8080", "\nPort=%d" % self.web)
        start = 10000 + os.getpid() % 250 * 80
        config = config.replace("=50000", "=%d" % start).replace("=52000", "=%d" % (start + 80))
        with open(os.path.join(self.dir, "cfg/orx.cfg"), "w") as f:
            f.write(config)
        shutil.copytree(os.path.join(SOURCE, "tests/data"), os.path.join(self.dir, "tests/data"))
        self.write("scripts/install-deps.sh", "#!/bin/sh\n")
        self.build("echo '[ 42%] Building'")
        self.output = b""
        self.terminal = self.process = None

    def tearDown(self):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        for pid in self.started():
            os.kill(pid, signal.SIGKILL)
        if self.terminal is not None:
            os.close(self.terminal)
        shutil.rmtree(self.dir)

    def write(self, name, text):
        path = os.path.join(self.dir, name)
        with open(path, "w") as f:
            f.write(text)
        os.chmod(path, stat.S_IRWXU | stat.S_IRGRP | stat.S_IXGRP | stat.S_IROTH | stat.S_IXOTH)

    def build(self, command):
        self.write("path/cmake", CMAKE % {"build": command, "bin": BIN})

    def run_script(self, terminal=True, **options):
        if terminal:
            self.terminal, end = pty.openpty()
            os.set_blocking(self.terminal, False)
            # a session of its own, whose terminal this is
            options.setdefault("preexec_fn", lambda: (os.setsid(), os.close(os.open(os.ttyname(0), os.O_RDWR))))
            options.update(stdin=end, stdout=end, stderr=end)
        environment = dict(os.environ, PATH=os.path.join(self.dir, "path") + ":" + os.environ["PATH"])
        process = subprocess.Popen([os.path.join(self.dir, "scripts/run.sh")], env=environment, **options)
        if terminal:
            os.close(end)
        return process

    def read(self):
        try:
            self.output += os.read(self.terminal, 65536)
        except (BlockingIOError, OSError):
            pass
        return self.output.decode(errors="replace")

    def started(self, names=""):
        """Processes of the tree that live, of any name or of some."""
        found = []
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                if os.path.realpath("/proc/%s/cwd" % pid) == os.path.realpath(self.dir) and int(pid) != os.getpid():
                    with open("/proc/%s/stat" % pid) as f:
                        text = f.read()
                        if text.rsplit(") ", 1)[1][0] != "Z" and re.search(names, text.split(" ")[1]):
                            found.append(int(pid))
            except OSError:
                pass
        return found

    def up(self):
        self.process = self.run_script()
        self.assertTrue(wait_for(lambda: "/live/demo\r\n" in self.read()), self.output)

    def test_says_the_url_last(self):
        self.up()
        lines = self.read().strip().splitlines()
        self.assertRegex(lines[-1], r"ffplay rtsp://.*:%d/live/demo" % self.port)
        self.assertNotIn("install", self.read().lower())
        if os.path.exists(os.path.join(BIN, "orxweb")):
            page = re.search(r"Pages for browsers: http://.*:(\d+)/", self.read())
            with urllib.request.urlopen("http://127.0.0.1:%s/" % page[1], timeout=20) as answer:
                self.assertIn(b"live/demo", answer.read())
        os.write(self.terminal, b"stat\n")
        self.assertTrue(wait_for(lambda: re.search(r"0: /?live/demo\s", self.read())), self.output)
        os.write(self.terminal, b"quit\n")
        self.assertEqual(0, self.process.wait(20))
        self.assertTrue(wait_for(lambda: not self.started()))

    def test_all_that_it_started_ends_with_it(self):
        def close_terminal():
            os.close(self.terminal)
            self.terminal = None
        ends = {
            "Ctrl-C": lambda: os.write(self.terminal, b"\x03"),
            "SIGTERM": lambda: self.process.terminate(),
            "SIGHUP": lambda: self.process.send_signal(signal.SIGHUP),
            "terminal closed": close_terminal,
        }
        for name, end in ends.items():
            with self.subTest(name):
                self.output = b""
                self.up()
                self.assertGreaterEqual(len(self.started()), 3)
                end()
                self.process.wait(20)
                self.assertTrue(wait_for(lambda: not self.started()), self.started())
                if self.terminal is not None:
                    os.close(self.terminal)
                    self.terminal = None

    def test_runs_without_a_terminal(self):
        for options in ({"stdin": subprocess.DEVNULL}, {"stdin": subprocess.DEVNULL, "start_new_session": True}):
            log = os.path.join(self.dir, "log")
            with open(log, "w") as out:
                self.process = self.run_script(False, stdout=out, stderr=out, **options)
            with open(log) as printed:
                self.assertTrue(wait_for(lambda: printed.seek(0) == 0 and "/live/demo\n" in printed.read()))
            self.process.terminate()
            self.assertEqual(0, self.process.wait(20))
            self.assertTrue(wait_for(lambda: not self.started()), self.started())

    def test_a_build_ends_with_it_too(self):
        self.build("sleep 1000 & wait")
        self.process = self.run_script()
        self.assertTrue(wait_for(lambda: len(self.started()) >= 4))
        os.write(self.terminal, b"\x03")
        self.process.wait(20)
        self.assertTrue(wait_for(lambda: not self.started()), self.started())

    def test_shows_the_log_of_a_build_that_fails(self):
        self.build("echo no such compiler; exit 1")
        process = self.run_script(False, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.assertIn(b"no such compiler", process.communicate(timeout=20)[0])
        self.assertEqual(1, process.returncode)

    def test_a_second_one_changes_nothing(self):
        self.up()
        before = sorted(self.started("orx"))
        self.assertLessEqual(2, len(before))
        second = self.run_script(False, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.assertIn(b"Orx runs already", second.communicate(timeout=20)[0])
        self.assertEqual(3, second.returncode)
        self.assertEqual(before, sorted(self.started("orx")))

    def test_a_port_that_is_taken_is_left_alone(self):
        with socket.create_server(("127.0.0.1", self.port)):
            process = self.run_script(False, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            self.assertIn(b"Orx runs already", process.communicate(timeout=20)[0])
            self.assertEqual(3, process.returncode)

    @unittest.skipIf(os.getuid() != 0, "needs root")
    def test_tells_whose_the_tree_is(self):
        os.chmod(self.dir, 0o777)
        os.makedirs(os.path.join(self.dir, "build/run"))
        process = self.run_script(False, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                  user="nobody")
        output = process.communicate(timeout=20)[0]
        self.assertIn(b"build belongs to root", output)
        self.assertEqual(4, process.returncode, output)


if __name__ == "__main__":
    unittest.main()
