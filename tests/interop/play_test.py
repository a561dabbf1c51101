"""Every pusher with every player at once: each decodes exactly what was pushed."""

import time
import unittest

from case import InteropCase
from clients import FPS, PLAYERS, FfmpegPusher, GstPusher, OrxPusher, mismatch
from orxserver import LONG

SECONDS = 60 if LONG else 4


class Play(InteropCase):
    def play(self, make, **options):
        self.start()
        pusher = self.add(make(self.dir, self.server.url(), **options))
        self.wait_program()
        players = [self.add(make(self.dir, self.server.url(), transport, SECONDS * FPS))
                   for make, transport in PLAYERS]
        status = {player.name: player.wait(SECONDS + 40) for player in players}
        self.assertEqual({}, {name: s for name, s in status.items() if s != 0}, "exit status of players")
        self.assert_only(1)
        self.assertEqual(pusher.interrupted, pusher.stop())
        self.assert_empty()
        reference = pusher.reference()
        for player in players:
            with self.subTest(player.name):
                self.assertIsNone(mismatch(player.pictures, reference))
                self.assertGreaterEqual(len(player.pictures), SECONDS * FPS)
                self.assertEqual([], player.complaints())
        self.assertEqual([], pusher.complaints())

    def test_ffmpeg(self):
        self.play(FfmpegPusher)

    def test_gstreamer(self):
        self.play(GstPusher)

    def test_orxpush(self):
        self.play(OrxPusher, seconds=SECONDS + 20)

    def test_late_joiners(self):
        """Players that come when the cache has been trimmed, and trimmed again."""
        self.start(SERVER={"CacheLimit": 5})
        makers = {"ffmpeg": FfmpegPusher, "gst": GstPusher, "orxpush": OrxPusher}
        pushers = {name: self.add(make(self.dir, self.server.url(name), name=name, **(
            {"seconds": 40} if make is OrxPusher else {}))) for name, make in makers.items()}
        self.wait_program(3)
        time.sleep(10)  # of media, twice what is kept
        players = {name: [self.add(make(self.dir, self.server.url(name), transport, 2 * FPS, name=name + "-player"))
                          for make, transport in (PLAYERS[0], PLAYERS[6])] for name in pushers}
        for player in sum(players.values(), []):
            self.assertEqual(0, player.wait(40), player.name)
        for name, pusher in pushers.items():
            self.assertEqual(pusher.interrupted, pusher.stop())
            reference = pusher.reference()
            for player in players[name]:
                with self.subTest(player.name):
                    self.assertIsNone(mismatch(player.pictures, reference))
                    self.assertEqual([], player.complaints())
        self.assert_empty()


if __name__ == "__main__":
    unittest.main()
