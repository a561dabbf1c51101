"""What players send beside requests: reports, datagrams that open their NAT, and nothing for a while."""

import os
import time
import unittest

from case import InteropCase
from clients import FPS, PLAYERS, FfmpegPusher, mismatch
from orxserver import LONG
from rtspplayer import UdpPlayer, receiver_report

SECONDS = 60 if LONG else 6

# What players send to open their NAT: to the RTP port, to the RTCP port.
OPENERS = {
    "an empty packet, an empty report": (b"\x80" + bytes(11), b"\x80\xc9\0\x01\0\0\0\0"),
    "200 random bytes": (os.urandom(200), os.urandom(200)),
    "four bytes": (b"\xce\xfa\xed\xfe", b"\xce\xfa\xed\xfe"),
    "nothing": (b"", b""),
}
# What must stay a datagram, however much it looks like something on the connection.
IMPOSTORS = (b"TEARDOWN rtsp://127.0.0.1/live/cam RTSP/1.0\r\nCSeq: 999\r\n\r\n", b"$\0\0\x10" + bytes(16), b"\0" * 1400)


class Reports(InteropCase):
    settings = {"SERVER": {"EnableRtcp": 1, "LiveTime": 1}}

    def setUp(self):
        super().setUp()
        self.start()
        self.pusher = self.add(FfmpegPusher(self.dir, self.server.url(), options=("-tune", "zerolatency")))
        self.wait_program()

    def finish(self):
        self.assert_only(1)
        self.assertEqual(self.pusher.interrupted, self.pusher.stop())
        self.assert_empty()

    def test_players(self):
        """All players, far beyond the time of silence that is allowed, with reports in both directions."""
        players = [self.add(make(self.dir, self.server.url(), transport, SECONDS * FPS))
                   for make, transport in PLAYERS]
        status = {player.name: player.wait(SECONDS + 40) for player in players}
        self.assertEqual({}, {name: s for name, s in status.items() if s != 0}, "exit status of players")
        self.finish()
        reference = self.pusher.reference()
        for player in players:
            with self.subTest(player.name):
                self.assertIsNone(mismatch(player.pictures, reference))
                self.assertEqual([], player.complaints())
        self.assertIn("RR sender's ssrc=", self.server.output(), "no player's report was seen")

    def player(self, ports=None):
        player = UdpPlayer(self.server.url())
        self.addCleanup(player.close)
        player.request("OPTIONS")
        player.set_up(ports)
        return player

    def test_datagrams(self):
        """Reports and junk by the dozen between keep-alive requests: the connection stays in step."""
        player = self.player()
        for rtp, rtcp in OPENERS.values():
            player.send_rtp(rtp)
            player.send_rtcp(rtcp)
        player.request("PLAY", headers="Range: npt=0.000-\r\n")

        def chatter():
            player.send_rtcp(receiver_report())
            for datagram in IMPOSTORS:
                player.send_rtp(datagram)
                player.send_rtcp(datagram)

        for _ in range(5):
            player.collect(0.5, chatter)
            player.request("OPTIONS")
            player.request("SET_PARAMETER")
        player.request("TEARDOWN")
        self.assertGreater(len(player.numbers), FPS)
        self.assertEqual([], player.holes())
        self.assertGreater(player.reports, 0)
        player.close()
        self.finish()

    def test_silence(self):
        """A player over UDP that is silent on its connection for longer than a pusher may be."""
        player = self.player()
        player.request("PLAY")
        player.collect(2.5)
        player.send_rtcp(receiver_report())
        player.collect(0.5)
        player.request("OPTIONS")
        player.collect(0.5)
        player.request("PAUSE")
        player.request("TEARDOWN")
        self.assertGreater(len(player.numbers), FPS)
        self.assertEqual([], player.holes())
        player.close()
        self.finish()

    def test_translated_address(self):
        """Media follows the datagrams of a player whose ports are not those that it knows of."""
        for name, (rtp, rtcp) in OPENERS.items():
            with self.subTest(name):
                player = self.player(ports=(9, 10))
                player.request("PLAY")
                player.send_rtp(rtp)
                player.send_rtcp(rtcp)
                end = time.monotonic() + 10
                while time.monotonic() < end and len(player.numbers) < 10:
                    player.collect(0.1)
                self.assertGreaterEqual(len(player.numbers), 10)
                self.assertEqual([], player.holes())
                player.request("TEARDOWN")
                player.close()
        self.finish()


if __name__ == "__main__":
    unittest.main()
