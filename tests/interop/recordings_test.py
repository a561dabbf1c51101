"""Recordings: what real players and the export make of them is what was pushed."""

import glob
import os
import re
import socket
import subprocess

from case import InteropCase
from clients import FPS, PLAYERS, GstPlayer, GstSeeker, OrxPusher, decode, duration, ffmpeg, mismatch, packets, sound
from orxserver import wait_for

ZMF_PROGRAM = os.environ.get("ORX_ZMF", "orxzmf")
SPEED = 4  # of the pusher, so that a recording does not take as long as it is


class Recordings(InteropCase):
    settings = {"SERVER": {"EnableFilePrg": 1}, "STORAGE": {"RecordEnable": 1}}

    def record(self, seconds, sound=True, **settings):
        """Records orxpush, and stores its media and its pictures, which are those that were pushed."""
        root = os.path.join(self.dir, "rec")
        self.start(**{**settings, "STORAGE": {"RecordPath": root}})
        pusher = self.push(OrxPusher, seconds=seconds, sound=sound, options=("--speed", str(SPEED)))
        with socket.create_connection(("127.0.0.1", self.server.port)) as control:
            self.request(control, "DESCRIBE")
            self.request(control, "RECORDEX", "ActionParam: EventType=1\r\n")
            self.assertEqual(0, pusher.wait(seconds + 40))
        self.assert_empty()
        self.name = os.path.relpath(glob.glob(root + "/**/*.zmf", recursive=True)[0], root)
        self.url = self.server.url(self.name)
        self.zmf("check")
        self.pictures, self.keys = decode(self.zmf("export", "h264"))
        self.assertGreater(len(self.pictures), (seconds - SPEED) * FPS)
        self.assertIsNone(mismatch(self.pictures, pusher.reference()))
        if sound:
            with open(pusher.alaw, "rb") as pushed, open(self.zmf("export", "g711"), "rb") as f:
                self.assertIn(f.read(), pushed.read())

    def zmf(self, command, ending=None):
        """Runs orxzmf on the recording. The file that it makes."""
        made = [os.path.join(self.dir, "export." + ending)] if ending else []
        done = subprocess.run([ZMF_PROGRAM, command, os.path.join(self.dir, "rec", self.name), *made],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.assertEqual(0, done.returncode, done.stdout)
        return made[0] if made else None

    def check(self, players, first, last):
        """Each has decoded these pictures, all of them and nothing else."""
        for player in players:
            with self.subTest(player.name):
                self.assertIsNone(mismatch(player.pictures, (self.pictures[first:], [0])))
                self.assertEqual(last - first, len(player.pictures))
                self.assertEqual([], player.complaints())
        self.assert_empty()

    def test_to_the_end(self):
        """The whole of it; a report tells the players when there is no more."""
        self.record(16, SERVER={"EnableRtcp": 1})  # with reports in between
        # GStreamer not over UDP, where it may read the report before the last picture
        players = self.play(players=[p for p in PLAYERS if p != (GstPlayer, "udp")], url=self.url)
        self.assert_ended(players, 60)
        self.check(players, 0, len(self.pictures))

    def test_from_elsewhere(self):
        """ffmpeg and mpv pause, and go on elsewhere; GStreamer only asks for another place."""
        self.record(12, sound=False)  # see Gst
        start, frames = 6, 2 * FPS
        # both give the first picture no time, and so count from the second one
        asked = "%.2f" % (start - 1 / FPS)
        players = self.play(frames, PLAYERS[:3], self.url, before=("-ss", asked))
        players += self.play(frames, PLAYERS[3:5], self.url, options=("--start=" + asked,))
        # not over UDP: what comes while GStreamer takes its pads apart stops its source for good ("not-linked")
        seekers = [self.add(GstSeeker(self.dir, self.url, transport, start)) for transport in ("tcp", "http")]
        self.assert_ended(players, 60)
        first, last = start * FPS, start * FPS + frames
        for player in seekers:
            self.assertTrue(wait_for(lambda: self.pictures[last - 1] in player.pictures, 60), player.name)
            player.stop()
            # it has begun at the start, and shows what is still under way when it asks, even without a key picture
            player.pictures = player.pictures[player.pictures.index(self.pictures[first]):][:frames]
        self.check(players + seekers, first, last)

    def test_export(self):
        """Files that others read without a word: every picture at its time, and the sound."""
        self.record(8)
        for ending in ("mkv", "mp4"):
            with self.subTest(ending):
                path = self.zmf("export", ending)
                said = ffmpeg("-i", path, "-f", "null", "-", errors=subprocess.STDOUT).decode()
                self.assertEqual("", re.sub("Guessed Channel Layout.*\n", "", said))
                self.assertEqual((self.pictures, self.keys), decode(path))
                found = packets(path)
                times = [time for time, _ in found["video"]]
                self.assertLess(max(abs(time - i / FPS - times[0]) for i, time in enumerate(times)), 0.002)
                for i in (0, -1):
                    self.assertLess(abs(found["audio"][i][0] - times[i]), 0.2)
                self.assertLess(abs(duration(path) - len(self.pictures) / FPS), 0.1)
                if ending == "mkv":  # where the sound loses nothing
                    self.assertEqual(sound(["-f", "alaw", "-ar", "8000", self.zmf("export", "g711")], "-f", "s16le"),
                                     sound([path]))
