"""Every pair of codecs that is recorded: what real players and the export show is what was pushed, with the sound in
step, to the end."""

import glob
import os
import statistics
import subprocess
from fractions import Fraction

from case import InteropCase
from clients import (FFMPEG, FFMPEG_REMARKS, FPS, GOP, HEIGHT, WIDTH, Child, GstPlayer, MpvPlayer, ffmpeg, ffprobe,
                     mismatch)
from orxserver import wait_for

ZMF_PROGRAM = os.environ.get("ORX_ZMF", "orxzmf")
SECONDS = 8
SPEED = 4  # of the pushers
START = 4.5  # a place, in a group of pictures
H264 = ["-c:v", "libx264", "-preset", "veryfast"]
H265 = ["-c:v", "libx265", "-preset", "ultrafast", "-x265-params", "log-level=none:open-gop=0"]
AAC = ["-c:a", "aac", "-ar", "48000"]
G711 = ["-c:a", "pcm_alaw", "-ar", "8000", "-af", "aresample=8000,asetnsamples=160"]
KINDS = {  # of programs: ffmpeg's options, the decoder of GStreamer, and the pictures of an export
    "h264-aac": (H264 + AAC, "rtph264depay ! h264parse ! avdec_h264", "h264"),
    "h264-g711": (H264 + G711, "rtph264depay ! h264parse ! avdec_h264", "h264"),
    "h265-aac": (H265 + AAC, "rtph265depay ! h265parse ! avdec_h265", "hevc"),
    "jpeg-g711": (["-c:v", "mjpeg", "-q:v", "6", "-huffman", "default", "-force_duplicated_matrix", "1", *G711], "rtpjpegdepay ! avdec_mjpeg",
                  "mjpeg"),
}
LIST = ["-map", "0:v", "-map", "0:a", "-c:v", "rawvideo", "-enc_time_base:v", "1:90000", "-c:a", "copy", "-fps_mode",
        "passthrough", "-f", "framemd5"]


def listed(text):
    """The decoded pictures and the packets of sound: [(time in seconds, digest)] of either."""
    found, base = ([], []), [1, 1]
    for line in text.splitlines():
        fields = line.replace(",", " ").split()
        if fields[0] == "#tb":
            base[int(fields[1][0])] = float(Fraction(fields[2]))
        elif not fields[0].startswith("#"):
            # behind the digest follow those of what ffmpeg knows beside a packet: the sender's clock from reports
            found[int(fields[0])].append((int(fields[2]) * base[int(fields[0])], fields[5]))
    return found


def digests(stream):
    return [digest for _, digest in stream]


def delay(stream, source):
    """How much later each of it is than in the source; what a player makes of the first few does not count."""
    at = {digest: time for time, digest in source}
    return statistics.median(time - at[digest] for time, digest in stream if digest in at)


class ListingPlayer(Child):
    """ffmpeg, with the times of all that it gets."""

    # of the first pictures, see MpvPlayer
    ignored = ("Non-monotonous DTS", *FFMPEG_REMARKS)

    def __init__(self, folder, url, transport, name, before=()):
        name = "%s-ffmpeg-%s%s" % (name, transport, "".join(before))
        self.list = os.path.join(folder, name + ".list")
        super().__init__(name, folder, FFMPEG + ["-rtsp_transport", transport, *before, "-i", url, *LIST, self.list])

    def found(self):
        with open(self.list) as f:
            return listed(f.read())


class Codecs(InteropCase):
    settings = {"SERVER": {"EnableFilePrg": 1}}

    def record(self):
        """Pushes a program of each kind, all of which are recorded. Their names, sources and recordings."""
        root = os.path.join(self.dir, "rec")
        self.start(STORAGE={"RecordEnable": 1, "RecordPath": root, "RecordAlways": "live/*", "NeverLose": 1, "WideUnits": 1})
        pushers = []
        for name, (options, _, _) in KINDS.items():
            source = os.path.join(self.dir, name + ".mkv")
            ffmpeg("-f", "lavfi", "-i", "testsrc2=size=%dx%d:rate=%d:duration=%d" % (WIDTH, HEIGHT, FPS, SECONDS), "-f",
                   "lavfi", "-i", "anoisesrc=sample_rate=48000:duration=%d" % SECONDS, *options, "-g", str(GOP),
                   "-flags", "+global_header", source)
            pushers.append(self.add(Child("push-" + name, self.dir, FFMPEG + [
                "-readrate", str(SPEED), "-i", source, "-map", "0", "-c", "copy", "-f", "rtsp", "-rtsp_transport", "tcp",
                self.server.url("live/" + name)])))
        self.assert_ended(pushers)
        self.assert_empty()
        for name in KINDS:
            files = glob.glob("%s/live/%s/**/*.zmf" % (root, name), recursive=True)
            self.assertEqual(1, len(files), files)
            source = listed(ffmpeg("-i", os.path.join(self.dir, name + ".mkv"), *LIST, "pipe:1").decode())
            yield name, source, files[0], self.server.url(os.path.relpath(files[0], root))

    def assert_listed(self, player, source, first):
        """All from a picture on, and the sound beside it."""
        pictures, sound = player.found()
        self.assertIsNone(mismatch(digests(pictures), (digests(source[0]), [first])))
        self.assertEqual(len(source[0]) - first, len(pictures))
        begin = digests(source[1]).index(sound[-1][1]) + 1 - len(sound)
        self.assertEqual(digests(source[1])[begin:begin + len(sound)], digests(sound))
        # a block of sound is not cut, and ffmpeg keeps the last block to itself when it ends to push
        self.assertAlmostEqual(source[0][first][0], source[1][begin][0], delta=0.2 if first else 0.1)
        self.assertAlmostEqual(source[1][-1][0], source[1][begin + len(sound) - 1][0], delta=0.2)
        self.assertAlmostEqual(delay(pictures, source[0]), delay(sound, source[1]), delta=0.04)

    def assert_exported(self, name, recording, source):
        copied = name.endswith("aac")
        for ending, g711 in ("mp4", "aac"), ("mkv", "pcm_s16le"):
            path = os.path.join(self.dir, "export." + ending)
            subprocess.run([ZMF_PROGRAM, "export", recording, path], check=True, stdout=subprocess.DEVNULL)
            self.assertEqual([KINDS[name][2], "aac" if copied else g711],
                             ffprobe(path, "-show_entries", "stream=codec_name"))
            pictures, sound = listed(ffmpeg("-i", path, *LIST, "pipe:1").decode())
            self.assertEqual(digests(source[0]), digests(pictures))
            if copied:
                self.assertAlmostEqual(delay(pictures, source[0]), delay(sound, source[1]), delta=0.04)

    def test_recorded(self):
        recorded = list(self.record())
        played = []
        for name, source, _, url in recorded:
            key = int(START * FPS)  # each JPEG is one
            key -= 0 if "jpeg" in name else key % GOP
            others = [self.add(MpvPlayer(self.dir, url, "tcp", name=name + "-mpv")),
                      self.add(GstPlayer(self.dir, url, "tcp", name=name + "-gst", decoder=KINDS[name][1]))]
            lists = [(self.add(ListingPlayer(self.dir, url, transport, name, before)), first)
                     for transport, before, first in (("tcp", (), 0), ("udp", (), 0),
                                                      ("tcp", ("-noaccurate_seek", "-ss", str(START)), key))]
            played.append((source, others, lists))
        for name, source, recording, _ in recorded:
            with self.subTest(name):
                self.assert_exported(name, recording, source)
        self.assert_ended([p for _, others, lists in played for p in others + [q for q, _ in lists]], 60)
        for source, others, lists in played:
            for player in others:
                with self.subTest(player.name):
                    self.assertIsNone(mismatch(player.pictures, (digests(source[0]), [0])))
                    # GStreamer leaves out the last one at times, see recordings_test
                    self.assertIn(len(source[0]) - len(player.pictures), (0, 1) if isinstance(player, GstPlayer) else (0,))
            for player, first in lists:
                with self.subTest(player.name):
                    self.assert_listed(player, source, first)
            for player in others + [q for q, _ in lists]:
                self.assertEqual([], player.complaints())
        self.assert_empty()
