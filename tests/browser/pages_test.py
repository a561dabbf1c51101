"""The pages in a real browser, through the web port of the server: what people see, hear, press and may not see."""

import json
import os
import re
import signal
import subprocess
import sys
import time
from urllib.parse import quote

from chromium import Chromium
from clients import FFMPEG, Child
from orxserver import free_tcp_port, wait_for
from webcase import OTHER, WebCase

HERE = os.path.dirname(os.path.abspath(__file__))
X264 = ["-c:v", "libx264", "-preset", "ultrafast", "-tune", "zerolatency", "-g", "25", "-pix_fmt", "yuv420p"]
CLOCK = ["-f", "rawvideo", "-pixel_format", "yuv420p", "-video_size", "640x360", "-framerate", "25",
         "-use_wallclock_as_timestamps", "1", "-i", "pipe:0"]
SOUND = ["-f", "lavfi", "-re", "-i", "sine=frequency=440:sample_rate=48000"]
BALL = ["-re", "-f", "lavfi", "-i", "testsrc=size=320x240:rate=10"]
CODECS = {  # program: encoder
    "live/h265": BALL + ["-c:v", "libx265", "-preset", "ultrafast", "-x265-params", "log-level=error:keyint=10"],
    "live/door": BALL + ["-c:v", "mjpeg", "-huffman", "default", "-pix_fmt", "yuvj420p"],
}


class PagesTest(WebCase):
    def look(self, address=None, **options):
        """A browser, by way of the web port."""
        browser = Chromium(address or "http://127.0.0.1:%d" % self.web_port, downloads=self.dir, **options)
        self.addCleanup(browser.quit)
        return browser

    def begin(self, push=False, **settings):
        self.web_port = free_tcp_port()
        super().begin(push, **settings)
        self.assertTrue(wait_for(lambda: self.ask("/health", basic="admin:geheim")[0] == 200))

    def start(self, WEB, SERVER=None, **settings):
        super().start(SERVER={"EnableHttpProxy": "1", "HttpProxyListenPort": self.web_port,
                              "HttpProxyTargetPort": WEB["Port"], **(SERVER or {})},
                      INTEROP={"StandardPushers": "1", "StandardPlayers": "1", "LowDelay": "1", "FastWebPort": "1"},
                      WEB=WEB, **settings)

    def encode(self, program, arguments, source=None):
        encoder = self.add(Child(re.sub(r"\W", "_", program), self.dir, ["bash", "-c", "exec \"$@\"%s" % (
            " < <(exec /usr/bin/python3 -B '%s/clocksource.py')" % HERE if source else ""), "bash",
            *[a for a in FFMPEG if not source or a != "-nostdin"], *arguments, "-f", "rtsp", "-rtsp_transport", "tcp",
            self.server.url(quote(program))]))
        return encoder

    def clock(self, program="live/cam1", sound=True):
        return self.encode(program, CLOCK + (SOUND + ["-c:a", "aac", "-b:a", "64k"] if sound else []) + X264, source=1)

    def test_live(self):
        self.begin()
        camera = self.clock()
        self.clock(OTHER, sound=False)
        for program, arguments in CODECS.items():
            self.encode(program, arguments)
        self.assertTrue(wait_for(lambda: self.ask("/live/live/cam1", basic="admin:geheim")[0] == 200))
        browser = self.look()
        browser.open("/live/live/cam1")
        browser.login("admin", "geheim")
        self.assertTrue(wait_for(lambda: browser.path() == "/live/live/cam1"), browser.path())

        browser.open("/")
        self.assertTrue(wait_for(lambda: len(browser.all(".tile .badge.live")) == 4), browser.text("main"))
        tile = browser.find("[data-program='live/cam1']")
        self.assertTrue(wait_for(lambda: "640×360" in tile.text and "live" in tile.text), tile.text)
        shown = "return [...document.querySelectorAll('.tile img')].every(i => i.complete && i.naturalWidth > 100)"
        self.assertTrue(wait_for(lambda: browser.run(shown)))
        for size in ((1280, 800), (390, 844)):
            browser.shot("programs-" + ("desk" if size[0] > 500 else "phone"), size)

        for program, sound in ((OTHER, False), ("live/cam1", True)):
            browser.open("/live/" + quote(program) if program != OTHER else "/live/" + quote(OTHER[:-4]) + "%2Emp4")
            self.assertTrue(browser.plays(), program)
            time.sleep(1.5)  # of settling, before stalls count
            before, delays, after = browser.played(), browser.delays(), browser.played()
            print("%s: delay p50 %d ms, p95 %d ms; %r" % (program, delays[len(delays) // 2], delays[len(delays) * 95 // 100],
                                                        after), file=sys.stderr)
            self.assertLess(delays[len(delays) // 2], 3000)
            self.assertEqual((before["stalls"], False, True), (after["stalls"], after["paused"], after["muted"]))
            self.assertEqual(sound, after["sound"] > 0)
        browser.shot("live-desk", (1280, 800))
        browser.shot("live-phone", (390, 844))
        browser.press("m")
        self.assertTrue(wait_for(lambda: not browser.played()["muted"]))
        self.assertTrue(wait_for(lambda: browser.played()["sound"] > after["sound"]))

        self.server.process.send_signal(signal.SIGSTOP)  # a stall of three seconds: afterwards it is as near as before
        time.sleep(3)
        self.server.process.send_signal(signal.SIGCONT)
        self.assertTrue(browser.plays())
        self.assertTrue(wait_for(lambda: 0 <= browser.played()["behind"] < 0.7), browser.played())
        self.assertLess(browser.delays()[25], 3000)

        browser.run("document.querySelector('video').pause()")  # a pause outlasts the camera's reboot
        camera.kill()
        self.assertTrue(wait_for(lambda: browser.text("#report") == "Paused"), browser.text("#report"))
        self.assertTrue(wait_for(lambda: "not there" in browser.text("#fresh")), browser.text("#fresh"))
        self.clock()
        self.assertTrue(wait_for(lambda: browser.text("#fresh .badge") == "live"), browser.text("#fresh"))
        self.assertTrue(browser.played()["paused"])
        browser.press("n")
        self.assertTrue(browser.plays())

        browser.open("/live/live/h265")
        self.assertTrue(wait_for(lambda: re.search("H265|hvc1|hev1", browser.text("#report"))), browser.text("main"))
        browser.open("/live/live/door")
        self.assertTrue(wait_for(lambda: browser.run("return document.querySelector('img#picture').naturalWidth === 320")))
        self.assertEqual([], browser.complaints("status of (401|404|503)"))

    def test_recordings(self):
        self.begin(push=True)
        asked = "/api/recordings?program=live/cam1"
        rows = wait_for(lambda: [r for r in json.loads(self.ask(asked, basic="admin:geheim")[2]) if r["seconds"] >= 8], 30)
        self.assertTrue(rows)
        self.pushers[0].terminate()
        rows = wait_for(lambda: [r for r in json.loads(self.ask(asked, basic="admin:geheim")[2]) if r["state"] == "complete"])
        browser = self.look(language="de")
        browser.open("/")
        browser.login("guest", "gast")
        self.assertEqual("de", browser.run("return document.documentElement.lang"))
        self.assertTrue(wait_for(lambda: browser.all("a[href='/recordings/live/cam1']")))
        browser.find("a[href='/recordings/live/cam1']").click()
        day = rows[0]["start"][:10]
        self.assertTrue(wait_for(lambda: browser.path().startswith("/recordings/") and day in browser.text("main")))
        self.assertTrue(browser.all("nav.days a[aria-current=page]"))

        browser.open("/recordings/live/cam1?at=" + rows[0]["start"][:-2] + "%02d" % (int(rows[0]["start"][-2:]) + 0))
        self.assertTrue(wait_for(lambda: browser.played()["state"] >= 2), browser.text("main"))
        browser.press(" ")
        self.assertTrue(browser.plays())
        browser.shot("recordings-desk", (1280, 800))
        browser.shot("recordings-phone", (390, 844))
        browser.run("document.querySelector('video').currentTime = 5")  # seeks within it
        self.assertTrue(wait_for(lambda: browser.played()["time"] > 5.2))
        browser.press("+")
        self.assertTrue(wait_for(lambda: browser.played()["rate"] == 2))
        line = browser.find("#line rect")
        browser.run("arguments[0].dispatchEvent(new MouseEvent('click', {bubbles: true, detail: 1, "
                    "clientX: arguments[0].getBoundingClientRect().left + 0.1}))", line)
        self.assertTrue(wait_for(lambda: browser.played()["time"] < 4), browser.played())

        browser.find("a[href$='?download=1']").click()
        name = wait_for(lambda: [f for f in os.listdir(self.dir) if f.endswith(".mp4")])
        self.assertTrue(name)
        probe = subprocess.run(["ffprobe", "-v", "error", "-count_frames", "-show_entries", "stream=codec_name,nb_read_frames",
                                "-of", "csv=p=0", os.path.join(self.dir, name[0])], stdout=subprocess.PIPE, text=True)
        self.assertRegex(probe.stdout, r"^h264,\d{3}")
        self.assertEqual([], browser.complaints())

    def test_accounts(self):
        self.begin(push=True)
        browser = self.look()
        browser.open("/system")
        self.assertEqual(("/login?to=%2Fsystem", "en"), (browser.path(), browser.run("return document.documentElement.lang")))
        names, missed = browser.tabbed()
        self.assertEqual(([], True), (missed, all(names)), names)
        browser.login("guest", "wrong")
        self.assertTrue(wait_for(lambda: browser.all("[role=alert]")))
        self.assertIn("wrong", browser.text("[role=alert]"))
        time.sleep(1.2)  # the wrong password makes the next try wait
        browser.login("guest", "gast")
        self.assertTrue(wait_for(lambda: browser.path() == "/system"))
        self.assertIn("may not", browser.text("main"))

        browser.open("/")
        self.assertTrue(wait_for(lambda: browser.all(".tile")))
        self.assertEqual(["live/cam1"], [t.get_attribute("data-program") for t in browser.all("[data-program]")])
        self.assertFalse(browser.all("a[href='/system']"))
        browser.open("/live/" + quote(OTHER[:-4]) + "%2Emp4")
        self.assertFalse(browser.all("video"))
        browser.complaints()  # a page that is forbidden is told to the console as well
        start = json.loads(self.ask("/api/recordings?program=live/cam1", basic="admin:geheim")[2])[0]["start"]
        for target in ("/", "/live/live/cam1", "/recordings/live/cam1", "/recordings/live/cam1?at=" + start):
            browser.open(target)
            names, missed = browser.tabbed()
            self.assertEqual(([], []), (missed, [name for name in names if not name.strip()]), target)
        browser.find("form[action='/logout'] button").click()
        self.assertTrue(wait_for(lambda: browser.path().startswith("/login")))  # or the next address would outrun it
        browser.open("/")
        self.assertTrue(browser.path().startswith("/login"))
        browser.shot("login-phone", (390, 844))
        self.assertEqual([], browser.complaints())
