"""A pusher that goes and comes back: its players' recordings go on, with times that rise and sound in step."""

import os
import statistics

from case import InteropCase
from clients import FFMPEG, FFMPEG_REMARKS, Child, FfmpegPusher, GstPlayer, GstPusher, packets
from orxserver import wait_for

SECONDS = 12
IN_STEP = 0.04
SOUND = ("-f", "lavfi", "-i", "anoisesrc=sample_rate=44100:color=%s")


class Recorder(Child):
    ignored = FFMPEG_REMARKS + ("Timestamps are unset in a packet for stream [01]",)

    def __init__(self, folder, url, transport, kind):
        self.copy = os.path.join(folder, "record-%s.%s" % (transport, kind))
        super().__init__("record-" + transport + kind, folder, FFMPEG + [
            "-rtsp_transport", transport, "-i", url, "-map", "0", "-c", "copy", "-t", str(SECONDS), self.copy])


class Hold(InteropCase):
    def pusher(self, make, transport, color, name):
        if make == GstPusher:
            return {"name": name, "sound": True, "protocols": "" if transport == "udp" else "protocols=tcp"}
        quality = "23" if name == "first" else "28"  # or their pictures are the same
        return {"name": name, "transport": transport,
                "options": ("-tune", "zerolatency", "-crf", quality, "-c:a", "aac"),
                "sound": [word % color if "%" in word else word for word in SOUND]}

    def check(self, transport, take_over=False, make=FfmpegPusher):
        self.start(INTEROP={"HoldPlayers": 5, "UdpPushers": 1}, SERVER={"EnableRtcp": 0})
        first = self.push(make, **self.pusher(make, transport, "white", "first"))
        url = self.server.url()
        kinds = [("tcp", "mkv"), ("udp", "mkv"), ("tcp", "ts")][:3 if make == FfmpegPusher else 2]
        gst = self.add(GstPlayer(self.dir, url, "tcp"))
        # rtspclientsink reports first when some seconds have gone by; that ffmpeg steps at the very first report of a
        # track is no matter of the hold
        wait_for(lambda: len(gst.pictures) > (110 if make == GstPusher else 20))
        copies = [self.add(Recorder(self.dir, url, t, kind)) for t, kind in kinds]
        wait_for(lambda: all(os.path.exists(c.copy) and os.path.getsize(c.copy) > 100000 for c in copies))
        if not take_over:
            first.kill()
        shown = len(gst.pictures)
        second = self.add(make(self.dir, url, **self.pusher(make, transport, "pink", "second")))
        self.assertTrue(wait_for(lambda: "ResumeLiveProgram(" in self.server.output()))
        stat = self.server.wait_stat(lambda s: s.clients == len(copies) + 1)  # who was taken over may be on its way out
        self.assertEqual((1, len(copies) + 1), (stat.lives, stat.clients))
        self.assert_ended(copies, SECONDS + 40)
        self.assertTrue(wait_for(lambda: len(gst.pictures) > shown + 50))
        self.assertTrue(gst.running())
        gst.stop()
        first.kill()
        self.end(second)
        pushed = [packets(p.copy) for p in (first, second) if make == FfmpegPusher]
        for player in copies:
            with self.subTest(player.name):
                played = packets(player.copy)
                for kind in ("video", "audio"):
                    times = [t for t, _ in played[kind]][1:]
                    self.assertGreater(times[-1], SECONDS - 2.5)
                    stands = [(a, b) for a, b in zip(times, times[1:]) if b <= a]
                    self.assertEqual([], stands, kind + " does not move on")
                for what in pushed if player.copy.endswith("mkv") else ():  # which keeps packets as they are
                    self.in_step(what, played)
                self.assertEqual([], player.complaints())

    def in_step(self, pushed, played):
        late = []
        for kind in ("video", "audio"):
            times = {digest: time for time, digest in pushed[kind]}
            offsets = [time - times[digest] for time, digest in played[kind][1:] if digest in times]
            self.assertGreater(len(offsets), 10, kind)
            late.append(statistics.median(offsets))
        print("sound is %.1f ms off" % ((late[1] - late[0]) * 1000))
        self.assertAlmostEqual(late[0], late[1], delta=IN_STEP)

    def test_tcp(self):
        self.check("tcp")

    def test_udp(self):
        self.check("udp")

    def test_take_over(self):
        self.check("tcp", True)

    def test_gstreamer(self):
        self.check("tcp", make=GstPusher)

    def test_gstreamer_udp(self):
        self.check("udp", True, make=GstPusher)
