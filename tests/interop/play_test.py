"""Every pusher with every player at once: each decodes exactly what was pushed."""

import socket

from case import InteropCase
from clients import FPS, PLAYERS, FfmpegPusher, GstPusher, OrxPusher
from orxserver import LONG

SECONDS = 60 if LONG else 4
PUSHERS = {"ffmpeg": (FfmpegPusher, {}), "ffmpeg-udp": (FfmpegPusher, {"transport": "udp"}),
           "gst": (GstPusher, {}), "gst-udp": (GstPusher, {"protocols": ""}),
           "orxpush": (OrxPusher, {"seconds": SECONDS + 40})}


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

    def test_ffmpeg_as_it_is(self):
        """Its first choice is UDP: taken, or else refused, and it goes on over TCP by itself."""
        for taken in (1, 0):
            with self.subTest(UdpPushers=taken):
                self.start(INTEROP={"UdpPushers": taken})
                pusher = self.push(FfmpegPusher, transport="")
                players = self.play(2 * FPS, PLAYERS[:2])
                self.assert_ended(players)
                self.end(pusher)
                self.assert_shown(players, pusher, 2 * FPS)
                refusals = [line for line in pusher.complaints() if "461 Unsupported Transport" in line]
                self.assertEqual(refusals, pusher.complaints())
                self.assertEqual(0 if taken else 1, len(refusals))
                self.assertEqual(taken, self.server.output().count("remote=") > 2)
                self.server.quit()

    def test_gstreamer_as_it_is(self):
        self.check("gst-udp", INTEROP={"UdpPushers": 1})

    def test_both_families(self):
        """Pushed over IPv6 and over IPv4, played over both."""
        with socket.socket(socket.AF_INET6) as s:
            try:
                s.bind(("::1", 0))
            except OSError:
                self.skipTest("this machine has no ::1")
        for kind, host in (("ffmpeg-udp", "[::1]"), ("gst-udp", "[::1]"), ("ffmpeg", "[::1]"), ("gst-udp", "127.0.0.1")):
            with self.subTest(pusher=kind, host=host):
                self.server.host = host
                self.start(SERVER={"ListenIp": "::"}, INTEROP={"UdpPushers": 1})
                make, options = PUSHERS[kind]
                pusher = self.push(make, **options)
                players = self.play(2 * FPS, url=self.server.url().replace(host, "[::1]"), name="six-")
                players += self.play(2 * FPS, url=self.server.url().replace(host, "127.0.0.1"))
                self.assert_ended(players)
                self.end(pusher)
                self.assert_shown(players, pusher, 2 * FPS)
                self.assertEqual([], pusher.complaints())
                self.assertIn("from " + host, self.server.output())
                self.server.quit()

    def test_reports(self):
        """Far beyond the time of silence that a pusher is allowed, with reports in both directions."""
        self.check("ffmpeg", SECONDS + 2, SERVER={"EnableRtcp": 1, "LiveTime": 1})
        self.assertIn("RR sender's ssrc=", self.server.output(), "no player's report was seen")
