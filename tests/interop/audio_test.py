"""Pictures with sound: both arrive as they were pushed, on one time line."""

import os

from case import InteropCase
from clients import FFMPEG, FFMPEG_REMARKS, Child, FfmpegPusher, Gst, GstPusher, OrxPusher, packets, sound
from orxserver import LONG, wait_for

SECONDS = 60 if LONG else 5
MAX_SKEW = 0.1  # seconds by which sound and pictures may be apart from how they were pushed


class CopyPlayer(Child):
    """Copies the packets into a file, as a recorder does."""

    # As in mpv, the first picture has no time, whoever sends the stream.
    ignored = FFMPEG_REMARKS + ("Timestamps are unset in a packet for stream 0",)

    def __init__(self, folder, url, transport, seconds):
        self.copy = os.path.join(folder, "copy-%s.mkv" % transport)
        super().__init__("copy-" + transport, folder, FFMPEG + [
            "-rtsp_transport", transport, "-i", url, "-map", "0:v", "-map", "0:a", "-t", str(seconds), "-c", "copy",
            self.copy])


class GstListener(Gst):
    """Decodes both and keeps the samples."""

    decoders = {"aac": "rtpmp4gdepay ! aacparse ! avdec_aac", "pcm_alaw": "rtppcmadepay ! alawdec",
                "pcm_mulaw": "rtppcmudepay ! mulawdec"}

    def __init__(self, folder, url, transport, codec):
        self.copy = os.path.join(folder, "gst-%s.sound" % transport)
        super().__init__("gst-sound-" + transport, folder, (
            "rtspsrc name=s location=%s s. ! rtph264depay ! avdec_h264 ! fakesink "
            "s. ! %s ! filesink buffer-mode=unbuffered location=%s"
            % (url.replace("rtsp", self.schemes[transport], 1), self.decoders[codec], self.copy)).split())


def offset(pushed, played):
    """How much later packets have their time in what was played, seconds; None when none is in both."""
    times = {digest: time for time, digest in pushed}
    offsets = sorted(time - times[digest] for time, digest in played if digest in times)
    return offsets[len(offsets) // 2] if offsets else None


class Audio(InteropCase):
    def check(self, make, codec, rate, reports, in_frames=False, **options):
        """reports: the server sends its own; in_frames: packets keep their borders on the way."""
        self.start(SERVER={"EnableRtcp": reports})
        pusher = self.push(make, **options)
        url = self.server.url()
        copies = [self.add(CopyPlayer(self.dir, url, t, SECONDS)) for t in ("tcp", "udp", "http")]
        gst = [self.add(GstListener(self.dir, url, t, codec)) for t in ("tcp", "udp")]
        self.assert_ended(copies, SECONDS + 40)
        for player in gst:  # which may have needed a while to begin
            wait_for(lambda p=player: not p.running() or os.path.exists(p.copy) and
                     os.path.getsize(p.copy) > SECONDS * rate // 10, 40)
            self.assertEqual(0, player.stop(), player.name)
        self.assert_only(1)
        self.end(pusher)
        pushed_sound = sound(pusher.sound_copy())
        for player in copies:
            with self.subTest(player.name):
                self.check_sound(sound([player.copy]), pushed_sound, rate)
                self.check_times(packets(player.copy), packets(pusher.copy) if in_frames else None)
        samples = sound(pusher.sound_copy(), "-f", "s16le") if codec != "aac" else None
        for player in gst:
            with self.subTest(player.name), open(player.copy, "rb") as f:
                self.check_sound(f.read(), samples, rate)
        for client in copies + gst + [pusher]:
            with self.subTest(client.name):
                self.assertEqual([], client.complaints())

    def check_sound(self, played, pushed, rate):
        self.assertGreater(len(played), SECONDS * rate // 10)
        if pushed:
            self.assertTrue(played in pushed, "%d bytes differ from what was pushed" % len(played))

    def check_times(self, played, pushed):
        for kind in ("video", "audio"):
            times = [time for time, _ in played[kind]]
            self.assertEqual([], [(a, b) for a, b in zip(times, times[1:]) if b <= a], kind + " does not move on")
            self.assertAlmostEqual(SECONDS, times[-1] - times[0], delta=0.5)
        if pushed:
            video = offset(pushed["video"], played["video"])
            audio = offset(pushed["audio"], played["audio"])
            self.assertIsNotNone(video)
            self.assertAlmostEqual(video, audio, delta=MAX_SKEW)

    def check_ffmpeg(self, codec, rate, channels, reports):
        self.check(FfmpegPusher, codec, rate, reports, in_frames=codec == "aac", options=(
            "-tune", "zerolatency", "-c:a", codec, "-ac", str(channels)), sound=(
                "-f", "lavfi", "-i", "anoisesrc=sample_rate=%d" % rate))

    def test_ffmpeg_aac_44100(self):
        self.check_ffmpeg("aac", 44100, 2, 1)

    def test_ffmpeg_aac_48000(self):
        self.check_ffmpeg("aac", 48000, 1, 0)

    def test_ffmpeg_alaw_16000(self):
        self.check_ffmpeg("pcm_alaw", 16000, 1, 0)

    def test_ffmpeg_mulaw_stereo(self):
        self.check_ffmpeg("pcm_mulaw", 8000, 2, 1)

    def test_gstreamer_alaw(self):
        self.check(GstPusher, "pcm_alaw", 8000, 1, sound=True)

    def test_orxpush_alaw(self):
        self.check(OrxPusher, "pcm_alaw", 8000, 0, seconds=SECONDS + 20, sound=True)
