"""However a client leaves, nothing of it stays: no session, no socket, no port."""

import unittest

from case import InteropCase
from clients import PLAYERS, FfmpegPusher, GstPusher, OrxPusher
from orxserver import wait_for


class Leave(InteropCase):
    def begin(self, make=FfmpegPusher, **options):
        self.start()
        self.pusher = self.add(make(self.dir, self.server.url(), **options))
        self.wait_program()
        with_pusher = len(self.server.descriptors())
        players = [self.add(make(self.dir, self.server.url(), transport)) for make, transport in PLAYERS]
        for player in players:
            self.assertTrue(wait_for(lambda p=player: len(p.pictures) >= 10 or not p.running(), 40), player.name)
            self.assertTrue(player.running(), player.name)
        self.assertEqual(len(PLAYERS), self.server.stat().clients)
        return players, with_pusher

    def assert_only_pusher(self, descriptors):
        self.assert_only(1)
        wait_for(lambda: len(self.server.descriptors()) == descriptors, 10)
        self.assertEqual(descriptors, len(self.server.descriptors()), self.server.descriptors())

    def test_players_stop(self):
        players, descriptors = self.begin()
        for player in players:
            player.stop()
            self.assertEqual([], player.complaints(), player.name)
        self.assert_only_pusher(descriptors)
        self.assertEqual(self.pusher.interrupted, self.pusher.stop())
        self.assert_empty()

    def test_players_die(self):
        players, descriptors = self.begin()
        for player in players:
            player.kill()
        self.assert_only_pusher(descriptors)
        self.pusher.kill()
        self.assert_empty()

    def lose_pusher(self, end):
        """The players of a program go with it, and each notices."""
        players, _ = self.begin()
        end()
        self.assert_empty()
        for player in players:
            player.stop()

    def test_pusher_stops(self):
        self.lose_pusher(lambda: self.pusher.stop())

    def test_pusher_dies(self):
        self.lose_pusher(lambda: self.pusher.kill())

    def test_pushers_come_and_go(self):
        """Each kind of pusher, ended in each way, and its name is free again."""
        self.start()
        for make in (FfmpegPusher, GstPusher, OrxPusher):
            for end in ("stop", "kill"):
                with self.subTest(make.__name__ + " " + end):
                    pusher = self.add(make(self.dir, self.server.url(), name="%s-%s" % (make.__name__, end)))
                    self.wait_program()
                    getattr(pusher, end)()
                    self.assert_empty()


if __name__ == "__main__":
    unittest.main()
