"""Sound that arrives late: the pusher's reports keep it in step, live and recorded."""

import glob
import os
import socket
import threading
import time

from audio_test import CopyPlayer, offset
from case import InteropCase
from clients import FfmpegPusher, packets

LATE = 0.7  # seconds
SECONDS = 8
IN_STEP = 0.04


class LateSound:
    """Takes one pusher's connection to the server, and hands its second track on late."""

    def __init__(self, port):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.to = port
        threading.Thread(target=self._run, daemon=True).start()

    def _run(self):
        pusher, _ = self.listener.accept()
        server = socket.create_connection(("127.0.0.1", self.to))
        lock = threading.Lock()

        def back():
            while data := server.recv(65536):
                pusher.sendall(data.replace(b":%d/" % self.to, b":%d/" % self.port))
            pusher.close()

        def late(frames):
            while True:
                with lock:
                    item = frames.pop(0) if frames and frames[0][0] <= time.monotonic() else None
                    if item:
                        server.sendall(item[1])
                if not item:
                    time.sleep(0.002)

        frames = []
        threading.Thread(target=back, daemon=True).start()
        threading.Thread(target=late, args=(frames,), daemon=True).start()
        stream = pusher.makefile("rb")
        while head := stream.read(1):
            if head != b"$":
                line = head + stream.readline()
                with lock:
                    server.sendall(line.replace(b":%d/" % self.port, b":%d/" % self.to))
                continue
            head += stream.read(3)
            frame = head + stream.read(int.from_bytes(head[2:4], "big"))
            with lock:
                if head[1] < 2:
                    server.sendall(frame)
                else:
                    frames.append((time.monotonic() + LATE, frame))


class Reports(InteropCase):
    def in_step(self, copy, pushed):
        played = packets(copy)
        for kind in ("video", "audio"):
            times = [t for t, _ in played[kind]][1:]  # the first picture of a recording has none, see CopyPlayer
            self.assertGreater(len(times), 50, kind)
            self.assertEqual([], [(a, b) for a, b in zip(times, times[1:]) if b <= a], kind + " does not move on")
        skew = offset(pushed["audio"], played["audio"]) - offset(pushed["video"], played["video"])
        print("%s: sound is %.1f ms off" % (os.path.basename(copy), skew * 1000))
        self.assertAlmostEqual(0, skew, delta=IN_STEP)

    def test_late_sound(self):
        root = os.path.join(self.dir, "rec")
        self.start(SERVER={"EnableRtcp": 0, "EnableFilePrg": 1}, STORAGE={
            "RecordEnable": 1, "RecordPath": root, "WideUnits": 1, "NeverLose": 1})
        relay = LateSound(self.server.port)
        server_port, self.server.port = self.server.port, relay.port
        pusher = self.push(FfmpegPusher, options=("-tune", "zerolatency", "-c:a", "aac"), sound=(
            "-f", "lavfi", "-i", "anoisesrc=sample_rate=44100"))
        self.server.port = server_port
        control = socket.create_connection(("127.0.0.1", self.server.port))
        self.addCleanup(control.close)
        self.request(control, "DESCRIBE")
        self.request(control, "RECORDEX", "ActionParam: EventType=1\r\n")
        copies = [self.add(CopyPlayer(self.dir, self.server.url(), t, SECONDS)) for t in ("tcp", "udp")]
        self.assert_ended(copies, SECONDS + 40)
        pusher.stop()
        control.close()
        self.assert_empty()
        recording = os.path.relpath(glob.glob(root + "/**/*.zmf", recursive=True)[0], root)
        copies.append(self.add(CopyPlayer(self.dir, self.server.url(recording), "http", 100)))
        self.assert_ended(copies[2:], 40)
        pushed = packets(pusher.copy)
        for player in copies:
            with self.subTest(player.name):
                self.in_step(player.copy, pushed)
                self.assertEqual([], player.complaints())
