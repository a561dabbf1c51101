"""Every pusher with every player at once: each decodes exactly what was pushed."""

from case import InteropCase
from clients import FPS, PLAYERS, FfmpegPusher, GstPusher, OrxPusher
from orxserver import LONG

SECONDS = 60 if LONG else 4
PUSHERS = {"ffmpeg": (FfmpegPusher, {}), "gst": (GstPusher, {}), "orxpush": (OrxPusher, {"seconds": SECONDS + 40})}


class Play(InteropCase):
    def check(self, kind, seconds=SECONDS, **settings):
        self.start(**settings)
        make, options = PUSHERS[kind]
        pusher = self.push(make, **options)
        players = self.play(seconds * FPS)
        self.assert_ended(players, seconds + 40)
        self.assert_only(1)
        self.end(pusher)
        self.assert_shown(players, pusher, seconds * FPS)
        self.assertEqual([], pusher.complaints())

    def test_ffmpeg(self):
        self.check("ffmpeg")

    def test_gstreamer(self):
        self.check("gst")

    def test_orxpush(self):
        self.check("orxpush")

    def test_reports(self):
        """Far beyond the time of silence that a pusher is allowed, with reports in both directions."""
        self.check("ffmpeg", SECONDS + 2, SERVER={"EnableRtcp": 1, "LiveTime": 1})
        self.assertIn("RR sender's ssrc=", self.server.output(), "no player's report was seen")
