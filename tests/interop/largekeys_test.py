"""Key pictures far larger than what a player's socket holds are whole at the player: live, from one that began seconds
ago, and recorded."""

import glob
import os

from case import InteropCase
from clients import FFMPEG, FPS, HEIGHT, WIDTH, Child, FfmpegPlayer, GstPlayer, decode, ffmpeg, ffprobe, mismatch
from orxserver import wait_for

SIZE = 1920, 1080
# What moves is the last part of the picture: what is lost of it, or of one before, shows there.
CROP = ("-vf", "crop=%d:%d:%d:%d" % (WIDTH, HEIGHT, SIZE[0] - WIDTH, SIZE[1] - HEIGHT))
DECODER = ("rtph264depay ! h264parse ! avdec_h264 ! videoconvert ! videocrop left=%d top=%d"
           % (SIZE[0] - WIDTH, SIZE[1] - HEIGHT))
GOP = 10 * FPS
SECONDS = 24
NOISE = {"300k": (300000, 11, 30), "1400k": (1400000, 23, 23)}  # at least so many bytes: noise, quantiser
TRANSPORTS = "udp", "tcp", "http"
FRAMES = FPS


class LargeKeys(InteropCase):
    settings = {"STORAGE": {"RecordEnable": 1, "RecordAlways": "live/*", "NeverLose": 1, "WideUnits": 1},
                "SERVER": {"EnableFilePrg": 1}}

    def source(self, name, size, noise, quantiser):
        path = os.path.join(self.dir, name + ".mkv")
        still = "testsrc2=size=%dx%d:rate=%d:duration=1,noise=alls=%d,loop=-1:1[still]" % (*SIZE, FPS, noise)
        moving = "testsrc2=size=%dx%d:rate=%d:duration=%d[moving]" % (WIDTH, HEIGHT, FPS, SECONDS)
        ffmpeg("-f", "lavfi", "-i", ";".join((still, moving, "[still][moving]overlay=W-w:H-h:shortest=1")),
               "-pix_fmt", "yuv420p", "-c:v", "libx264", "-preset", "ultrafast", "-qp", str(quantiser), "-g", str(GOP),
               "-bf", "0", path)
        sizes = [line.split(",") for line in ffprobe(path, "-show_entries", "packet=size,flags")]
        self.assertGreater(min(int(n) for n, flags in sizes if "K" in flags), size)
        return path

    def check(self, kind, urls):
        """Each player at a time, so that none is short of the processor: pictures from the first one on."""
        for name, url in urls.items():
            for transport in TRANSPORTS:
                for make, options in (FfmpegPlayer, {"options": CROP}), (GstPlayer, {"decoder": DECODER}):
                    title = "%s-%s-%s" % (kind, name, make.__name__)
                    player = self.add(make(self.dir, url, transport, FRAMES, name=title, **options))
                    wait_for(lambda: not player.running(), 40)
                    self.assertEqual(0, player.stop(), player.name)  # GStreamer's own end may cut off what it sends
                    with self.subTest(player.name):
                        self.assertIsNone(mismatch(player.pictures, self.references[name]))
                        self.assertEqual(FRAMES, len(player.pictures))
                        self.assertEqual([], player.complaints())

    def test_whole(self):
        root = os.path.join(self.dir, "rec")
        self.start(STORAGE={"RecordPath": root})
        sources = {name: self.source(name, *how) for name, how in NOISE.items()}
        self.references = {name: decode(path, *CROP) for name, path in sources.items()}
        pushers = [self.add(Child("push-" + name, self.dir, FFMPEG + [
            "-re", "-i", path, "-c", "copy", "-f", "rtsp", "-rtsp_transport", "tcp", self.server.url("live/" + name)]))
            for name, path in sources.items()]
        self.server.wait_stat(lambda s: s.lives == len(pushers))
        self.check("live", {name: self.server.url("live/" + name) for name in sources})
        self.assert_ended(pushers)
        self.assert_empty()
        files = {name: glob.glob("%s/live/%s/**/*.zmf" % (root, name), recursive=True)[0] for name in sources}
        self.check("recorded", {name: self.server.url(os.path.relpath(path, root)) for name, path in files.items()})
        self.assert_empty()
