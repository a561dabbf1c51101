"""Sound of every codec that encoders push, beside pictures: it arrives as it was pushed, whoever plays."""

import os
import subprocess

from case import InteropCase
from clients import FFMPEG, FFMPEG_REMARKS, FPS, HEIGHT, WIDTH, Child, ffmpeg, scan_plugins, sound

SECONDS = 12
PLAYED = 3
CODECS = {  # the encoder's options, the file that is pushed, and options of the push
    "g722": (["-c:a", "g722", "-ar", "16000"], "nut", ()),
    "g726": (["-c:a", "g726", "-ar", "8000", "-b:a", "32k"], "wav", ()),
    "opus": (["-c:a", "libopus"], "mkv", ()),
    "l16": (["-c:a", "pcm_s16be", "-ar", "44100"], "nut", ()),
    "latm": (["-c:a", "aac", "-ar", "44100"], "mp4", ("-rtpflags", "latm")),
    "pcmu": (["-c:a", "pcm_mulaw", "-ar", "8000"], "nut", ()),
    "amr": (None, "amr", ()),
}


class Listener(Child):
    ignored = FFMPEG_REMARKS

    def __init__(self, folder, url, transport, name):
        self.copy = os.path.join(folder, "%s-%s.data" % (name, transport))
        super().__init__("%s-%s" % (name, transport), folder, FFMPEG + [
            "-rtsp_transport", transport, "-i", url, "-map", "0:a", "-t", str(PLAYED), "-c", "copy", "-f", "data",
            self.copy])


class Carried(InteropCase):
    def source(self, name):
        options, ending, _ = CODECS[name]
        path = os.path.join(self.dir, "%s.%s" % (name, ending))
        if options:
            ffmpeg("-f", "lavfi", "-i", "anoisesrc=sample_rate=48000:duration=%d" % SECONDS, "-ac", "1", *options, path)
        else:  # ffmpeg of Debian has no encoder
            scan_plugins()
            line = ("audiotestsrc wave=white-noise num-buffers=%d samplesperbuffer=160 ! "
                    "audio/x-raw,rate=8000,channels=1 ! amrnbenc ! avmux_amr ! filesink location=%s" % (SECONDS * 50, path))
            subprocess.run(["gst-launch-1.0", "-q", *line.split()], check=True)
        return path

    def test_codecs(self):
        self.start()
        picture = ["-re", "-f", "lavfi", "-i", "testsrc2=size=%dx%d:rate=%d" % (WIDTH, HEIGHT, FPS)]
        sources = {name: self.source(name) for name in CODECS}
        for name, (_, _, how) in CODECS.items():
            self.add(Child("push-" + name, self.dir, FFMPEG + [
                *picture, "-re", "-i", sources[name], "-map", "0:v", "-map", "1:a", "-c:v", "mjpeg",
                "-huffman", "default", "-force_duplicated_matrix", "1", "-pix_fmt", "yuvj420p", "-c:a", "copy", "-shortest", "-f", "rtsp",
                *how, "-rtsp_transport", "tcp", self.server.url("live/" + name)]))
        stat = self.server.wait_stat(lambda s: s.lives == len(CODECS))
        self.assertEqual(len(CODECS), stat.lives)
        url = self.server.url("live/")
        players = [(name, self.add(Listener(self.dir, url + name, t, name)))
                   for name in CODECS for t in ("tcp", "udp")]
        self.assert_ended([player for _, player in players])
        for name, player in players:
            with self.subTest(player.name), open(player.copy, "rb") as f:
                played, pushed = f.read(), sound([sources[name]])
                self.assertGreater(len(played), len(pushed) * PLAYED // SECONDS // 2)
                self.assertIn(played, [played] if played in pushed else [], "%d bytes differ" % len(played))
                self.assertEqual([], player.complaints())
