"""What the tests share: a server, and the look at what is left when clients have gone."""

import sys
import unittest

from orxserver import Server, wait_for


class InteropCase(unittest.TestCase):
    settings = {}  # of the server: section -> {key: value}

    def setUp(self):
        self.children = []
        self.server = Server()
        for section, keys in self.settings.items():
            self.server.set(section, **keys)
        self.dir = self.server.dir
        self.addCleanup(self.server.remove)
        self.addCleanup(self._end)

    def start(self, **settings):
        """Starts the server; a test's own settings go on top of those of its class."""
        for section, keys in settings.items():
            self.server.set(section, **keys)
        self.server.start()
        self.server.stat()
        self.idle = self.server.descriptors()

    def add(self, child):
        self.children.append(child)
        return child

    def _end(self):
        for child in self.children:
            child.kill()
        status = self.server.quit()
        faults = self.server.faults()
        if faults or status != 0 or self._has_failed():
            self._show()
        self.assertEqual([], faults, "the server complains about itself")
        self.assertEqual(0, status, "exit status of the server")

    def _has_failed(self):
        result = self._outcome.result
        return any(getattr(test, "test_case", test) is self for test, _ in result.failures + result.errors)

    def _show(self):
        for name, text in [("server", self.server.output())] + [(c.name, c.output()) for c in self.children]:
            sys.stderr.write("--- %s ---\n%s\n" % (name, text[-6000:]))

    def wait_program(self, count=1):
        stat = self.server.wait_stat(lambda s: s.lives == count)
        self.assertEqual(count, stat.lives, "programs that run: %r" % stat)

    def assert_only(self, lives):
        """Nothing of any player is left, and so many programs."""
        stat = self.server.wait_stat(lambda s: (s.lives, s.clients) == (lives, 0))
        self.assertEqual((lives, 0), (stat.lives, stat.clients), "left behind: %r" % stat)

    def assert_empty(self):
        """Nothing of anybody is left: no session, no socket."""
        self.assert_only(0)
        stat = self.server.wait_stat(lambda s: not s.sessions)
        self.assertEqual([], stat.sessions)
        wait_for(lambda: len(self.server.descriptors()) == len(self.idle), 10)
        self.assertEqual(len(self.idle), len(self.server.descriptors()), "open: %r, idle: %r" % (
            self.server.descriptors(), self.idle))
