"""Programs after each other, and pushers that are not served."""

from case import InteropCase
from clients import FFMPEG, FPS, PLAYERS, Child, FfmpegPlayer, FfmpegPusher, GstPusher, mismatch
from orxserver import wait_for

SOME = [PLAYERS[0], PLAYERS[4], PLAYERS[5]]  # each kind once


class Programs(InteropCase):
    def test_pushed_again(self):
        """The same name from the same address: the new pusher takes the old one's place at once."""
        self.start()
        old = self.push(FfmpegPusher, options=("-tune", "zerolatency"))
        watching = self.add(FfmpegPlayer(self.dir, self.server.url(), "tcp", name="watching"))
        self.assertTrue(wait_for(lambda: len(watching.pictures) >= 5, 20))
        new = self.push(GstPusher)
        for client in (old, watching):
            self.assertNotEqual("still running", client.wait(20))
        players = self.play(2 * FPS, SOME)
        self.assert_ended(players)
        self.assertEqual(1, self.server.stat().pushers)
        self.end(new)
        self.assert_shown(players, new, 2 * FPS)
        # the last picture was cut off in the middle
        self.assertIsNone(mismatch(watching.pictures[:-1], old.reference()))

    def test_pusher_returns(self):
        """Players of a program that goes end, those that come too early are told, and later ones see what follows."""
        self.start()
        first = self.push(FfmpegPusher, name="push-first")
        before = self.play(players=SOME)
        self.server.wait_stat(lambda s: s.clients == len(before))
        first.kill()
        for player in before:
            self.assertNotEqual("still running", player.wait(30), player.name)
        self.assert_empty()
        self.assert_refused(self.play(players=SOME, name="absent-"), "404|Not Found|not found")
        second = self.push(FfmpegPusher, name="push-second")
        players = self.play(2 * FPS, SOME, name="later-")
        self.assert_ended(players)
        self.end(second)
        self.assert_shown(players, second, 2 * FPS)

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
        for make in (FfmpegPusher, GstPusher):
            pusher = self.add(make(self.dir, self.server.url()))
            self.assertNotIn(pusher.wait(30), (0, "still running"), pusher.name)
            self.assertNotEqual([], pusher.complaints(), pusher.name)
        self.assert_empty()
