"""However a client leaves, nothing of it stays: no session, no socket, no port."""

from case import InteropCase
from clients import FFMPEG, PLAYERS, Child, FfmpegPusher, GstPusher, OrxPusher
from orxserver import wait_for


class Leave(InteropCase):
    def watch(self, name):
        """Every player, with some pictures seen."""
        players = self.play(name=name)
        for player in players:
            self.assertTrue(wait_for(lambda p=player: len(p.pictures) >= 10 or not p.running(), 40), player.name)
            self.assertTrue(player.running(), player.name)
        self.assertEqual(len(PLAYERS), self.server.stat().clients)
        return players

    def test_pushers(self):
        """The players of a program go with it, and each notices; its name is free again."""
        self.start()
        for make, end in [(m, e) for m in (FfmpegPusher, GstPusher, OrxPusher) for e in ("stop", "kill")]:
            with self.subTest(make.__name__ + " " + end):
                pusher = self.push(make, name="%s-%s" % (make.__name__, end))
                players = self.watch(end) if make is FfmpegPusher else []
                getattr(pusher, end)()
                self.assert_empty()
                for player in players:
                    player.stop()

    def test_push_over_udp(self):
        """Media is taken over TCP only. Whoever pushes over UDP all the same does no harm, and nothing stays."""
        self.start()
        pusher = self.add(Child("push-udp", self.dir, FFMPEG + [
            "-re", "-f", "lavfi", "-i", "testsrc2=size=256x144:rate=25", "-t", "3", "-pix_fmt", "yuv420p", "-c:v",
            "libx264", "-tune", "zerolatency", "-f", "rtsp", "-rtsp_transport", "udp", self.server.url()]))
        self.assertNotEqual("still running", pusher.wait(30))
        self.assert_empty()
