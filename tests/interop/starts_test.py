"""However an encoder sends its parameter sets, delimiters and SEI: a player that comes late starts with a whole picture
at once, and a recording is what was pushed."""

import glob
import os
import re
import subprocess
import time

from case import InteropCase
from clients import FFMPEG, FPS, HEIGHT, WIDTH, Child, FfmpegPlayer, GstPlayer, decode, ffmpeg, mismatch

ZMF_PROGRAM = os.environ.get("ORX_ZMF", "orxzmf")
GOP = 3 * FPS
SECONDS = 14
SOURCES = {
    "h264": ["-c:v", "libx264", "-preset", "ultrafast", "-g", str(GOP)],
    "h265": ["-c:v", "libx265", "-preset", "ultrafast", "-g", str(GOP), "-x265-params", "log-level=none:open-gop=0"],
}
ANNEXB = {"h264": "h264_mp4toannexb", "h265": "hevc_mp4toannexb"}
AUD = {"h264": ",h264_metadata=aud=insert", "h265": ",hevc_metadata=aud=insert"}
REFRESHED = ["-c:v", "libx264", "-preset", "ultrafast", "-x264-params", "intra-refresh=1:keyint=%d" % FPS]
WAYS = {  # how a file's packets are changed on their way: the description always has the parameter sets
    "described": lambda codec: "null",
    "annexb": lambda codec: ANNEXB[codec],
    "inband": lambda codec: ANNEXB[codec] + ",dump_extra",
    "delimiters": lambda codec: ANNEXB[codec] + AUD[codec],
    "bare": lambda codec: ANNEXB[codec] + ",filter_units=remove_types=" + {"h264": "6-9", "h265": "32-40"}[codec] + AUD[codec],
}


class Starts(InteropCase):
    settings = {"STORAGE": {"RecordEnable": 1, "RecordAlways": "live/*", "NeverLose": 1, "WideUnits": 1}}

    def source(self, codec):
        path = os.path.join(self.dir, codec + ".mkv")
        ffmpeg("-f", "lavfi", "-i", "testsrc2=size=%dx%d:rate=%d:duration=%d" % (WIDTH, HEIGHT, FPS, SECONDS), "-pix_fmt",
               "yuv420p", *SOURCES[codec], "-bf", "0", path)
        return path

    def test_late_players(self):
        root = os.path.join(self.dir, "rec")
        self.start(STORAGE={"RecordPath": root})
        for codec in SOURCES:
            source = self.source(codec)
            reference = decode(source)
            pushers = {way: self.add(Child("push-%s-%s" % (codec, way), self.dir, FFMPEG + [
                "-re", "-i", source, "-c", "copy", "-bsf:v", bsf(codec), "-f", "rtsp", "-rtsp_transport", "tcp",
                self.server.url("live/%s-%s" % (codec, way))])) for way, bsf in WAYS.items()}
            stat = self.server.wait_stat(lambda s: s.lives == len(WAYS))
            self.assertEqual(len(WAYS), stat.lives)
            time.sleep(4)  # into a group of pictures
            decoder = "rtp%sdepay ! %sparse ! avdec_%s ! videoconvert" % (codec, codec, codec)
            players = []
            for way in WAYS:
                url = self.server.url("live/%s-%s" % (codec, way))
                with self.subTest("first picture of %s-%s" % (codec, way)):
                    self.assert_whole(codec, url, way in ("delimiters", "bare"))
                for make, options in (FfmpegPlayer, {}), (GstPlayer, {"decoder": decoder}):
                    name = "%s-%s-%s" % (codec, way, make.__name__)
                    players.append(self.add(make(self.dir, url, "tcp", 30, name=name, **options)))
            self.assert_ended(players)
            for player in players:
                with self.subTest(player.name):
                    self.assertIsNone(mismatch(player.pictures, reference))
                    self.assertEqual(30, len(player.pictures))
                    self.assertEqual([], player.complaints())
            self.assert_ended(pushers.values())
            self.assert_empty()
            for way in WAYS:
                with self.subTest("recording of %s-%s" % (codec, way)):
                    self.assert_recorded(glob.glob("%s/live/%s-%s/**/*.zmf" % (root, codec, way), recursive=True), reference)

    def test_refreshed_pictures(self):
        """Pictures that are refreshed bit by bit: whoever comes late begins at a recovery point, not with the first picture."""
        self.start(STORAGE={"RecordPath": os.path.join(self.dir, "rec")})
        path = os.path.join(self.dir, "refreshed.mkv")
        ffmpeg("-f", "lavfi", "-i", "testsrc2=size=%dx%d:rate=%d:duration=%d" % (WIDTH, HEIGHT, FPS, SECONDS), "-pix_fmt",
               "yuv420p", *REFRESHED, "-bf", "0", path)
        pusher = self.add(Child("push", self.dir, FFMPEG + [
            "-re", "-i", path, "-c", "copy", "-f", "rtsp", "-rtsp_transport", "tcp", self.server.url()]))
        self.server.wait_stat(lambda s: s.lives == 1)
        time.sleep(5)
        players = [self.add(make(self.dir, self.server.url(), "tcp", 30)) for make in (FfmpegPlayer, GstPlayer)]
        self.assert_ended(players)
        pictures = decode(path)[0]
        for player in players:
            with self.subTest(player.name):
                begin = pictures.index(player.pictures[-1]) - len(player.pictures) + 1
                self.assertGreater(begin, 2 * FPS, "it began with what was first")
        pusher.stop()

    def assert_whole(self, codec, url, delimited):
        """The first access unit that a player gets has all that a decoder needs, in order, and its delimiter."""
        first = ffmpeg("-rtsp_transport", "tcp", "-i", url, "-map", "0:v", "-c", "copy", "-frames:v", "1", "-f", "data", "pipe:1")
        heads = [unit[0] for unit in re.split(b"\0\0\0?\1", first)[1:]]
        types = [head & 31 if codec == "h264" else head >> 1 & 63 for head in heads]
        sets, delimiter = {"h264": ([7, 8], 9), "h265": ([32, 33, 34], 35)}[codec]
        self.assertEqual(sets, [t for t in types if t in sets])
        self.assertLess(types.index(sets[-1]), len(types) - 1)
        self.assertEqual(delimited, delimiter in types)

    def assert_recorded(self, files, reference):
        self.assertEqual(1, len(files))
        path = files[0] + ".mkv"
        subprocess.run([ZMF_PROGRAM, "export", files[0], path], check=True, stdout=subprocess.DEVNULL)
        self.assertIsNone(mismatch(decode(path)[0], reference))
