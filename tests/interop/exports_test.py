"""Exports of recordings that are made here, byte by byte: hours, faults and codecs that no camera at hand sends."""

import os
import struct
import subprocess

from case import InteropCase
from clients import decode, ffmpeg, ffprobe, mismatch, packets

ZMF_PROGRAM = os.environ.get("ORX_ZMF", "orxzmf")
FPS = 5
VIDEO = {  # ffmpeg's options, the type of a unit, the last type of a slice, key slices
    "H264": (["-c:v", "libx264", "-x264-params", "slices=1:aud=0:repeat-headers=1"], lambda u: u[0] & 31, 5, (5,)),
    "H265": (["-c:v", "libx265", "-x265-params", "repeat-headers=1:log-level=none"], lambda u: u[0] >> 1 & 63, 31, range(16, 24)),
}
AUDIO = {  # what the description says, ms of a unit
    "PCMA": ("PCMA/8000", "", 20),
    "AAC": ("mpeg4-generic/16000/1", "mode=AAC-hbr;sizelength=13;indexlength=3;indexdeltalength=3;config=1408", 64),
}


def record(kind, ms, data, key=False):
    size = len(data) + 8
    return struct.pack(">HcBI", size & 0xFFFF, kind, size >> 16 | (0x40 if key else 0), ms) + data


def prefixed(unit):
    """A unit behind its length; a wide one behind four bytes more."""
    return (struct.pack(">H", len(unit) + 2) if len(unit) + 2 < 65536 else struct.pack(">HI", 0, len(unit))) + unit


class Exports(InteropCase):
    def _end(self):
        """No server runs."""

    def pictures(self, codec):
        """Two seconds of pictures with a key frame each second, as they are recorded, and their file."""
        options, kind, last_slice, keys = VIDEO[codec]
        path = os.path.join(self.dir, codec.lower() + ".bin")
        ffmpeg("-y", "-f", "lavfi", "-i", "testsrc=s=160x120:r=%d:d=2" % FPS, *options, "-bf", "0", "-g", str(FPS), "-f",
               {"H264": "h264", "H265": "hevc"}[codec], path)
        pictures, units, key = [], [], False
        with open(path, "rb") as f:
            found = f.read().replace(b"\0\0\0\1", b"\0\0\1").split(b"\0\0\1")[1:]
        for unit in found:
            if kind(unit) in (6, 39):  # what the encoder says of itself
                continue
            units.append(prefixed(unit))
            if kind(unit) <= last_slice:
                pictures.append((b"".join(units), kind(unit) in keys))
                units = []
        return pictures

    def units(self, codec):
        """Units of sound, for as long as one likes."""
        if codec == "PCMA":
            return [b"\xd5\x55" * 80]
        data = ffmpeg("-f", "lavfi", "-i", "sine=r=16000:d=2", "-c:a", "aac", "-ac", "1", "-f", "adts", "pipe:1")
        units = []
        while data:
            size = struct.unpack(">I", data[2:6])[0] >> 5 & 0x1FFF
            units.append(prefixed(data[7:size]))
            data = data[size:]
        return units

    def make(self, seconds, video="H264", audio="PCMA", clock=1.0, silence=(0, 0), wrong={}, wide=0):
        """A recording. clock: how fast that of the sound runs; silence: ms of its begin and end; wrong: times of
        pictures that are damaged; wide: bytes of a unit that is added to each picture."""
        name, form, unit_ms = AUDIO[audio]
        pictures, units, out, sent, at = self.pictures(video), self.units(audio), [], 0, 0
        extra = prefixed((b"\x6c" if video == "H264" else b"\x4c\x01") + b"\xff" * wide) if wide else b""
        for i in range(seconds * FPS):
            ms = i * 1000 // FPS
            while ms >= silence[1] and sent * unit_ms / clock < silence[1]:
                sent += 1
            block, first = b"", int(sent * unit_ms / clock)
            while sent * unit_ms / clock < ms and not silence[0] <= ms < silence[1]:
                block += units[sent % len(units)]
                sent += 1
            if block:
                out.append(record(b"a", first, block))
            if not silence[0] <= ms < silence[1]:
                data, key = pictures[i % len(pictures)]
                out.append(record(b"v", wrong.get(i, ms), data + extra, key))
        sdp = ("v=0\r\ns=x\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 %s/90000\r\nm=audio 0 RTP/AVP 97\r\na=rtpmap:97 %s\r\n"
               "a=fmtp:97 %s\r\n" % (video, name, form)).encode()
        sdp = sdp.ljust((len(sdp) + 8) // 8 * 8 + 32, b"\0")
        head = struct.pack(">4sHHHHH", b"zmf@", 168, 101, 1600, len(sdp), 0).ljust(132, b"\0") + b"\0\1"
        self.path = os.path.join(self.dir, "made.zmf")
        with open(self.path, "wb") as f:
            f.write(head.ljust(168 + 1600, b"\0") + sdp + b"".join(out))
        self.assertEqual("repaired", self.zmf("repair")[0].split(": ")[1])
        return os.path.getsize(self.path)

    def zmf(self, command, ending=None, status=0):
        """What orxzmf says, and the file that it makes."""
        made = [os.path.join(self.dir, "made." + ending)] if ending else []
        done = subprocess.run([ZMF_PROGRAM, command, self.path, *made], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True)
        self.assertEqual(status, done.returncode, done.stdout)
        return done.stdout, *made

    def test_in_step(self):
        """The sound's clock is not that of the pictures: each unit lies where it was recorded."""
        seconds = 900
        for video, audio, clock in (("H264", "PCMA", 1.001), ("H264", "PCMA", 0.999), ("H265", "AAC", 1.001)):
            self.make(seconds, video, audio, clock)
            for ending in ("mp4", "mkv"):
                with self.subTest(audio, clock=clock, ending=ending):
                    path = self.zmf("export", ending)[1]
                    found = packets(path)
                    self.assertAlmostEqual(seconds - 1 / FPS, found["video"][-1][0], delta=0.002)
                    times = [t for t, _ in found["audio"]]
                    self.assertAlmostEqual(seconds, times[-1], delta=0.3)
                    if audio == "AAC":  # copied unit by unit
                        self.assertLess(max(abs(t - i * 0.064 / clock) for i, t in enumerate(times)), 0.04)
                    else:  # for players that count samples, too
                        size = len(ffmpeg("-i", path, "-map", "a", "-f", "s16le", "pipe:1"))
                        self.assertAlmostEqual(seconds - 1 / FPS, size / 16000, delta=0.04 + (ending == "mp4") * 0.13)

    def test_no_more_than_the_file(self):
        """Half an hour of nothing takes neither time nor room, and times that cannot be none at all."""
        for options, end in (({"silence": (5000, 1805000)}, 1820), ({"wrong": {40: 2**32 - 1, 60: 0, 90: 3 * 10**9}}, 1820)):
            size = self.make(1820, **options)
            for ending in ("mp4", "mkv"):
                with self.subTest(ending, **options):
                    began = os.times()
                    path = self.zmf("export", ending)[1]
                    ended = os.times()  # of the processor: others may be busy, too
                    self.assertLess(ended.children_user + ended.children_system, began.children_user +
                                    began.children_system + 5)
                    self.assertLess(os.path.getsize(path), 3 * size)
                    for kind, found in packets(path).items():
                        self.assertAlmostEqual(end, found[-1][0], delta=0.4, msg=kind)

    def test_codecs(self):
        """Every form shows the same pictures, wide units or not."""
        for video, wide in (("H264", 0), ("H264", 70000), ("H265", 0), ("H265", 300000)):
            with self.subTest(video, wide=wide):
                self.make(2, video, "AAC", wide=wide)
                self.zmf("check")
                pushed = decode(os.path.join(self.dir, video.lower() + ".bin"))
                for ending in (video.lower(), "mp4", "mkv"):
                    self.assertIsNone(mismatch(decode(self.zmf("export", ending)[1])[0], pushed))
                found = ffprobe(self.zmf("export", "aac")[1], "-show_entries", "stream=codec_name,sample_rate,channels")
                self.assertEqual(["aac,16000,1"], found)

    def test_damage(self):
        """Damaged pictures are counted; an export that fails leaves what was there, and nothing else."""
        self.make(4)
        with open(self.path, "r+b") as f:
            data = f.read()
            for picture in (2, 7):
                at = [i for i in range(len(data)) if data[i:i + 1] == b"v" and
                      data[i + 2:i + 6] == struct.pack(">I", picture * 1000 // FPS)][0]
                f.seek(at + 6)
                f.write(b"\x7f\xff")
        self.assertIn(": damaged\n", self.zmf("check", status=5)[0])
        for ending in ("h264", "mp4"):
            said, path = self.zmf("export", ending)
            self.assertIn("2 damaged pictures were left out, the first of them at 400 ms\n", said)
            self.assertEqual(18, len(packets(path)["video"]) if ending == "mp4" else 18)
        with open(self.path, "wb") as f:
            f.write(data[:40] + bytes(16) + data[56:128] + bytes(4) + data[132:1768 + struct.unpack(">H", data[10:12])[0]])
        before = sorted(os.listdir(self.dir)), os.path.getsize(path)
        self.assertIn("holds no pictures", self.zmf("export", "mp4", status=1)[0])
        self.assertEqual(before, (sorted(os.listdir(self.dir)), os.path.getsize(path)))
        self.assertIn(": without a picture\n", self.zmf("check", status=4)[0])
