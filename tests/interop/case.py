"""What the tests share: a server, real clients around it, and the look at what is left when they have gone."""

import re
import socket
import sys
import unittest

from clients import PLAYERS, mismatch
from orxserver import Server, wait_for


class InteropCase(unittest.TestCase):
    settings = {}  # of the server: section -> {key: value}

    def setUp(self):
        self.children = []
        self.server = Server()
        self.dir = self.server.dir
        self.addCleanup(self.server.remove)
        self.addCleanup(self._end)

    def start(self, **settings):
        """Starts the server; a test's own settings go on top of those of its class."""
        for section, keys in [*self.settings.items(), *settings.items()]:
            self.server.set(section, **keys)
        self.server.start()
        self.server.stat()
        self.idle = self.server.descriptors()

    def add(self, child):
        self.children.append(child)
        return child

    def push(self, make, credentials="", **options):
        """Starts a pusher, and waits until its program runs."""
        pusher = self.add(make(self.dir, self.server.url(credentials=credentials), **options))
        stat = self.server.wait_stat(lambda s: s.lives == 1)
        self.assertEqual(1, stat.lives, "programs that run: %r" % stat)
        return pusher

    def play(self, frames=10**6, players=PLAYERS, url=None, name="", **options):
        """Starts players, each over its transport."""
        url = url or self.server.url()
        return [self.add(make(self.dir, url, transport, frames, name=name + make.__name__, **options))
                for make, transport in players]

    def request(self, connection, method, headers=""):
        """Sends a request for the program and takes its reply, for what no real player asks."""
        connection.sendall(("%s %s RTSP/1.0\r\nCSeq: 1\r\n%s\r\n" % (method, self.server.url(), headers)).encode())
        reply = connection.recv(65536, socket.MSG_PEEK)
        while b"\r\n\r\n" not in reply:
            reply = connection.recv(65536, socket.MSG_PEEK)
        head = reply[:reply.index(b"\r\n\r\n") + 4]
        length = int((re.search(rb"Content-Length: (\d+)", head) or [0, 0])[1])
        connection.recv(len(head) + length, socket.MSG_WAITALL)
        self.assertTrue(head.startswith(b"RTSP/1.0 200 OK\r\n"), head)

    def assert_ended(self, players, seconds=40):
        """All come to their end by themselves."""
        status = {player.name: player.wait(seconds) for player in players}
        self.assertEqual({}, {name: s for name, s in status.items() if s != 0}, "exit status of players")

    def assert_shown(self, players, pusher, pictures=1):
        """Each has shown what was pushed, at least so many pictures of it, and complains of nothing."""
        reference = pusher.reference()
        for player in players:
            with self.subTest(player.name):
                self.assertIsNone(mismatch(player.pictures, reference))
                self.assertGreaterEqual(len(player.pictures), pictures)
                self.assertEqual([], player.complaints())

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
        self.assertEqual(len(self.idle), len(self.server.descriptors()), "open: %r, before: %r" % (
            self.server.descriptors(), self.idle))

    def end(self, pusher):
        """Ends a pusher as its user does."""
        self.assertEqual(pusher.interrupted, pusher.stop(), pusher.name)
        self.assert_empty()

    def _end(self):
        for child in self.children:
            child.kill()
        status = self.server.quit()
        faults = self.server.faults()
        result = self._outcome.result
        if faults or status != 0 or any(getattr(test, "test_case", test) is self
                                        for test, _ in result.failures + result.errors):
            for name, text in [("server", self.server.output())] + [(c.name, c.output()) for c in self.children]:
                sys.stderr.write("--- %s ---\n%s\n" % (name, text[-6000:]))
        self.assertEqual([], faults, "the server complains about itself")
        self.assertEqual(0, status, "exit status of the server")
