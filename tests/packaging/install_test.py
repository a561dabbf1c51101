"""scripts/install.sh into an image, and the init script it writes."""

import os
import re
import shutil
import socket
import subprocess
import tempfile
import unittest

SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
SCRIPT = os.path.join(SOURCE, "scripts/install.sh")
BUILD = os.environ["ORX_BUILD"]


class InstallTest(unittest.TestCase):
    def setUp(self):
        self.image = tempfile.mkdtemp(prefix="orx-image-")
        self.addCleanup(shutil.rmtree, self.image)
        self.to = self.image + "/opt/orx"

    def install(self, *arguments, script=SCRIPT):
        return subprocess.run([script, *arguments], env=dict(os.environ, DESTDIR=self.image), check=True, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT).stdout

    def write(self, name, text):
        path = os.path.join(self.image, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as f:
            f.write(text)

    def read(self, name):
        with open(os.path.join(self.image, name)) as f:
            return f.read()

    def test_installs_and_keeps_what_is_the_users(self):
        self.write("etc/rc3.d/README", "")
        self.install(BUILD)
        self.assertIn("RecordPath=/opt/orx/rec\n", self.read("opt/orx/cfg/orx.cfg"))
        self.assertIn("prefix=/opt/orx\n", self.read("etc/init.d/orx"))
        self.assertTrue(os.path.islink(self.image + "/etc/rc3.d/S90orx"))
        self.write("opt/orx/cfg/orx.cfg", "[SERVER]\nListenPort=1\n")
        self.write("opt/orx/rec/live/1.zmf", "x")
        self.assertIn("orx.cfg.new", self.install(BUILD))
        self.write("opt/orx/share/doc/other", "")  # of another program below the same prefix
        self.install("--uninstall")
        self.assertEqual("", self.read("opt/orx/share/doc/other"))
        self.assertEqual("[SERVER]\nListenPort=1\n", self.read("opt/orx/cfg/orx.cfg"))
        self.assertEqual("x", self.read("opt/orx/rec/live/1.zmf"))
        for path in ("/opt/orx/bin", "/opt/orx/share/orx", "/opt/orx/log", "/etc/init.d/orx"):
            self.assertFalse(os.path.exists(self.image + path), path)

    def test_a_tarball_brings_its_script_and_its_unit(self):
        tarball = self.image + "/orx.tar.gz"
        self.install("--tarball", tarball, BUILD)
        subprocess.run(["tar", "-xzf", tarball, "-C", self.image, "./install.sh"], check=True)
        os.makedirs(self.image + "/lib/systemd/system")
        self.install("--prefix", "/srv/orx", tarball, script=self.image + "/install.sh")
        unit = self.read("etc/systemd/system/orx.service")
        self.assertIn("ExecStart=/srv/orx/bin/orx -daemond --strict -c /srv/orx/cfg/orx.cfg\n", unit)
        self.assertNotRegex(unit, r"(?m)^\w+=.*(/usr/lib/orx|/etc/orx|/var/)")

    def test_refuses_prefixes_that_are_none(self):
        for prefix in ("/", "/usr", "relative", "/a b"):
            with self.subTest(prefix), self.assertRaises(subprocess.CalledProcessError):
                self.install("--prefix", prefix, BUILD)

    def test_the_init_script_starts_and_stops(self):
        self.install("--no-service", BUILD)
        with socket.socket() as s:
            s.bind(("", 0))
            port = s.getsockname()[1]
        config = self.read("opt/orx/cfg/orx.cfg").replace("/opt/orx", self.to)
        config = re.sub("ListenPort=8554", "ListenPort=%d" % port, config)
        self.write("opt/orx/cfg/orx.cfg", config)
        template = open(SOURCE + "/packaging/orx.init")
        with template:
            user = subprocess.check_output(["id", "-un"], text=True).strip()
            self.write("orx.init", template.read().replace("@PREFIX@", self.to).replace("@USER@", user))

        def init(verb):
            return subprocess.run(["sh", self.image + "/orx.init", verb], stdout=subprocess.DEVNULL).returncode
        self.addCleanup(init, "stop")
        self.assertEqual(3, init("status"))
        self.assertEqual(0, init("start"))
        self.assertEqual(0, init("start"))  # once is enough
        with socket.create_connection(("127.0.0.1", port)):
            pass
        self.assertEqual(0, init("reload"))
        self.assertEqual(0, init("status"))
        self.assertEqual(0, init("stop"))
        self.assertEqual(3, init("status"))


if __name__ == "__main__":
    unittest.main()
