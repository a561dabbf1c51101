"""Cameras that are servers, pulled by orxpull: gst-rtsp-server stands for them, ffmpeg watches behind Orx."""

import concurrent.futures
import os
import re
import socket
import subprocess
import urllib.parse

from case import InteropCase
from clients import FFMPEG, Child
from orxserver import free_tcp_port, wait_for

HERE = os.path.dirname(os.path.abspath(__file__))
PULL = os.environ.get("ORX_PULL", "orxpull")
LOGIN = "ann:%s@" % urllib.parse.quote("ann:pw@/", safe="")


class PullTest(InteropCase):
    settings = {"SERVER": {"ConnectLimit": 200}}

    def camera(self, port, *arguments):
        camera = self.add(Child("camera%d" % len(self.children), self.dir, [
            "/usr/bin/python3", "-B", os.path.join(HERE, "gstcamera.py"), str(port), *arguments]))
        if not wait_for(lambda: "ready" in camera.output() or not camera.running()) or not camera.running():
            self.skipTest("no gst-rtsp-server: " + camera.output()[-200:])
        return camera

    def pull(self, sources):
        """Starts orxpull with sources: program -> (URL, transport). Returns once each has said how it fares."""
        config = os.path.join(self.dir, "pull.cfg")
        with open(config, "w") as f:
            f.write("[SERVER]\nListenPort=%d\n[INTEROP]\nStandardPushers=1\n[PULL]\nNumSources=%d\n" % (
                self.server.port, len(sources)))
            for i, (program, (url, transport)) in enumerate(sources.items()):
                f.write("Url%d=%s\nProgram%d=%s\nTransport%d=%s\n" % (i, url, i, program, i, transport))
        puller = self.add(Child("orxpull%d" % len(self.children), self.dir, [PULL, "-c", config]))
        wait_for(lambda: all("\n%s: " % program in "\n" + puller.output() for program in sources), 40)
        return puller

    def said(self, puller):
        return dict(line.split(": ", 1) for line in puller.output().splitlines())

    def streams(self, program):
        """What ffprobe finds: "h264 320x240 aac", decoded pictures and samples included."""
        probe = subprocess.run(
            ["ffprobe", "-loglevel", "error", "-rtsp_transport", "tcp", "-count_frames", "-read_intervals", "%+2",
             "-show_entries", "stream=codec_name,width,height,nb_read_frames", "-of", "csv=print_section=0",
             self.server.url(program)], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=60)
        rows = [row.split(",") for row in probe.stdout.split()]
        self.assertTrue(rows and all(int(row[-1]) > 10 for row in rows), probe.stdout + probe.stderr)
        return " ".join([row[0] + (" %sx%s" % tuple(row[1:3]) if len(row) > 3 else "") for row in rows])

    def test_codecs(self):
        """Every codec over every way, all at once; then the probe of one."""
        self.start()
        port = free_tcp_port()
        self.camera(port, "apart")
        expected = {"h264": "h264 320x240 aac", "h265": "hevc 320x240", "mjpeg": "mjpeg 320x240",
                    "g711": "h264 320x240 pcm_alaw", "udponly": "h264 320x240"}
        ways = [(name, way) for name in expected for way in ("tcp", "udp", "http") if (name, way) != ("udponly", "http")]
        puller = self.pull({"%s/%s" % way: ("rtsp://127.0.0.1:%d/%s" % (port, way[0]), way[1]) for way in ways})
        self.assertTrue(wait_for(lambda: set(self.said(puller).values()) == {"playing"}, 40), self.said(puller))
        with concurrent.futures.ThreadPoolExecutor(5) as pool:
            found = pool.map(lambda way: self.streams("%s/%s" % way), ways)
        self.assertEqual([(way, expected[way[0]]) for way in ways], list(zip(ways, found)))
        probe = subprocess.run([PULL, "--probe", "rtsp://127.0.0.1:%d/h264" % port], stdout=subprocess.PIPE, text=True)
        self.assertEqual("video: H264 320x240, 25 pictures a second, 1.0 s between key frames\n"
                         "audio: MPEG4-GENERIC, 44100 Hz, 2 channels\n", probe.stdout)
        self.assertEqual(0, probe.returncode)
        self.assertEqual(0, puller.stop())
        self.assert_empty()

    def test_passwords(self):
        self.start()
        for scheme in ("basic", "digest"):
            port = free_tcp_port()
            self.camera(port, scheme)
            at = "127.0.0.1:%d/h265" % port
            puller = self.pull({"right": ("rtsp://%s%s" % (LOGIN, at), "tcp"), "none": ("rtsp://" + at, "tcp"),
                                "wrong": ("rtsp://ann:geheim@" + at, "udp")})
            said = self.said(puller)
            with self.subTest(scheme=scheme, said=said):
                self.assertEqual("playing", said["right"])
                self.assertTrue(said["none"].startswith("401, ") and said["wrong"].startswith("401, "))
                self.assertNotRegex(puller.output(), "geheim|pw@")
                self.assertEqual("hevc 320x240", self.streams("right"))
            probe = subprocess.run([PULL, "--probe", "rtsp://" + at], stderr=subprocess.PIPE, text=True)
            self.assertEqual(1, probe.returncode)
            self.assertRegex(probe.stderr, "^orxpull: 401, .*\n$")
            self.assertEqual(0, puller.stop())

    def test_reboot(self):
        """A player and its times go on while a camera starts anew."""
        self.start()
        port = free_tcp_port()
        camera = self.camera(port)
        puller = self.pull({"cam": ("rtsp://127.0.0.1:%d/g711" % port, "tcp")})
        player = self.add(Child("player", self.dir, FFMPEG + [
            "-rtsp_transport", "tcp", "-i", self.server.url("cam"), "-map", "0", "-c", "copy", "-t", "12", "-f",
            "framecrc", "-flush_packets", "1", "frames"]))
        frames = os.path.join(self.dir, "frames")
        self.assertTrue(wait_for(lambda: os.path.exists(frames) and os.path.getsize(frames) > 20000))
        # ffmpeg mends its times with the first reports, which may come behind the first pictures
        said, shown = len(player.output()), os.path.getsize(frames)
        camera.kill()
        self.assertTrue(wait_for(lambda: "; trying again" in puller.output()))
        self.camera(port)
        self.assertTrue(wait_for(lambda: puller.output().count("cam: playing\n") == 2, 30), puller.output())
        self.assertEqual(0, player.wait(30))
        self.assertNotRegex(player.output()[said:], "on-monoton|invalid dropping|error")
        with open(frames) as f:
            f.seek(shown)
            rows = [re.split(r", *", line) for line in f.readlines()[1:]]
        for stream, rate in (("0", 90000), ("1", 8000)):
            times = [int(row[1]) / rate for row in rows if row[0] == stream]
            self.assertGreater(times[-1], 11)
            self.assertTrue(all(a < b for a, b in zip(times, times[1:])), stream)
        self.assertEqual(0, puller.stop())

    def test_discover(self):
        """A camera that answers on the loopback network."""
        self.start()
        answer = (b"<ProbeMatches><ProbeMatch><EndpointReference><Address>urn:uuid:7</Address></EndpointReference>"
                  b"<Scopes>onvif://www.onvif.org/name/Front%20door</Scopes><XAddrs>http://127.0.0.1/onvif</XAddrs>"
                  b"</ProbeMatch></ProbeMatches>")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as camera:
            camera.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            camera.bind(("239.255.255.250", 3702))
            camera.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                              socket.inet_aton("239.255.255.250") + socket.inet_aton("127.0.0.1"))
            camera.settimeout(10)
            with subprocess.Popen([PULL, "--discover"], stdout=subprocess.PIPE, text=True) as asker:
                question, address = camera.recvfrom(65536)
                self.assertIn(b"NetworkVideoTransmitter", question)
                camera.sendto(answer, address)
                found = asker.communicate(timeout=10)[0]
        self.assertIn("http://127.0.0.1/onvif  Front door\n", found)
        self.assertEqual(0, asker.returncode)
