"""Programs beside each other and after each other, and players that wait for one."""

import time
import unittest

from case import InteropCase
from clients import (FFMPEG, FPS, PLAYERS, Child, FfmpegPlayer, FfmpegPusher, GstPlayer, GstPusher, MpvPlayer,
                     OrxPusher, mismatch)
from orxserver import wait_for

PICTURES = 2 * FPS


class Programs(InteropCase):
    def assert_plays(self, players, pusher):
        """The players have come to their end by themselves, with pictures of this pusher only."""
        reference = pusher.reference()
        for player in players:
            with self.subTest(player.name):
                self.assertIsNone(mismatch(player.pictures, reference))
                self.assertGreaterEqual(len(player.pictures), PICTURES)
                self.assertEqual([], player.complaints())

    def test_two_at_once(self):
        """Each player gets its own program."""
        self.start()
        urls = {name: self.server.url("live/" + name) for name in ("left", "right")}
        pushers = {"left": self.add(FfmpegPusher(self.dir, urls["left"], name="push-left")),
                   "right": self.add(GstPusher(self.dir, urls["right"], name="push-right"))}
        self.wait_program(2)
        players = {name: [self.add(make(self.dir, urls[name], transport, PICTURES, name=name + "-" + make.__name__))
                          for make, transport in PLAYERS[:: 2 if name == "left" else 3]] for name in urls}
        for player in players["left"] + players["right"]:
            self.assertEqual(0, player.wait(40), player.name)
        self.assert_only(2)
        for name, pusher in pushers.items():
            self.assertEqual(pusher.interrupted, pusher.stop())
        self.assert_empty()
        for name, pusher in pushers.items():
            self.assert_plays(players[name], pusher)

    def test_pushed_again(self):
        """The same name from the same address: the new pusher takes the old one's place at once."""
        self.start()
        old = self.add(FfmpegPusher(self.dir, self.server.url(), name="push-old", options=("-tune", "zerolatency")))
        self.wait_program()
        watching = self.add(FfmpegPlayer(self.dir, self.server.url(), "tcp", name="watching"))
        self.assertTrue(wait_for(lambda: len(watching.pictures) >= 5, 20))
        new = self.add(GstPusher(self.dir, self.server.url(), name="push-new"))
        self.assertNotEqual("still running", old.wait(20))
        self.assertNotEqual("still running", watching.wait(20))
        self.wait_program()
        players = [self.add(make(self.dir, self.server.url(), transport, PICTURES))
                   for make, transport in PLAYERS[:: 3]]
        for player in players:
            self.assertEqual(0, player.wait(40), player.name)
        self.assertEqual(1, self.server.stat().pushers)
        self.assertEqual(new.interrupted, new.stop())
        self.assert_empty()
        self.assert_plays(players, new)
        # the last picture was cut off in the middle
        self.assertIsNone(mismatch(watching.pictures[:-1], old.reference()))

    def test_pusher_returns(self):
        """Players that try again until there is something to see."""
        self.start()
        first = self.add(FfmpegPusher(self.dir, self.server.url(), name="push-first"))
        self.wait_program()
        makers = [(FfmpegPlayer, "tcp"), (MpvPlayer, "udp"), (GstPlayer, "tcp")]
        before = [self.add(make(self.dir, self.server.url(), transport)) for make, transport in makers]
        self.server.wait_stat(lambda s: s.clients == len(before))
        first.kill()
        for player in before:
            self.assertNotEqual("still running", player.wait(30), player.name)
        self.assert_empty()
        absent = [self.add(make(self.dir, self.server.url(), transport, name="absent-" + make.__name__))
                  for make, transport in makers]
        for player in absent:
            self.assertNotIn(player.wait(20), (0, "still running"), player.name)
            complaints = "\n".join(player.complaints())
            if complaints or not isinstance(player, MpvPlayer):  # mpv may end before its log is written
                self.assertRegex(complaints, "404|Not Found|not found")
        waiting = [Waiting(self, make, transport) for make, transport in makers]
        for player in waiting:
            player.look()
        second = self.add(FfmpegPusher(self.dir, self.server.url(), name="push-second"))
        end = time.monotonic() + 60
        while time.monotonic() < end and not all(w.look() for w in waiting):
            time.sleep(0.1)
        self.assertEqual(second.interrupted, second.stop())
        self.assert_empty()
        self.assert_plays([w.player for w in waiting], second)

    def test_push_over_udp(self):
        """Media is taken over TCP only. Whoever pushes over UDP all the same does no harm, and nothing stays."""
        self.start()
        pusher = self.add(Child("push-udp", self.dir, FFMPEG + [
            "-re", "-f", "lavfi", "-i", "testsrc2=size=256x144:rate=25", "-t", "3", "-pix_fmt", "yuv420p", "-c:v",
            "libx264", "-tune", "zerolatency", "-f", "rtsp", "-rtsp_transport", "udp", self.server.url()]))
        self.assertNotEqual("still running", pusher.wait(30))
        self.assert_empty()

    def test_standard_pushers_off(self):
        """Pushers that start with RECORD are refused where they are not wanted, and end by themselves."""
        self.start(INTEROP={"StandardPushers": 0})
        pushers = [self.add(make(self.dir, self.server.url())) for make in (FfmpegPusher, GstPusher)]
        for pusher in pushers:
            self.assertNotIn(pusher.wait(30), (0, "still running"), pusher.name)
            self.assertNotEqual([], pusher.complaints(), pusher.name)
        self.assert_empty()
        pusher = self.add(OrxPusher(self.dir, self.server.url()))
        self.wait_program()
        player = self.add(FfmpegPlayer(self.dir, self.server.url(), "tcp", PICTURES))
        self.assertEqual(0, player.wait(40))
        self.assertEqual(pusher.interrupted, pusher.stop())
        self.assert_empty()
        self.assert_plays([player], pusher)


class Waiting:
    """A player that is started again whenever it ends without a picture."""

    def __init__(self, case, make, transport):
        self.start = lambda: case.add(make(case.dir, case.server.url(), transport, PICTURES,
                                           name="waiting-%d-%s" % (self.tries, make.__name__)))
        self.tries = 0
        self.player = None

    def look(self):
        """Whether it has seen enough."""
        if self.player and (self.player.running() or self.player.wait(10) == 0):
            return not self.player.running()
        self.tries += 1
        self.player = self.start()
        return False


if __name__ == "__main__":
    unittest.main()
