"""Chromium without a screen, driven as a person would: keys, clicks, and looks at what the page shows."""

import base64
import os
import re

from selenium import webdriver
from selenium.common.exceptions import WebDriverException
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from orxserver import wait_for

DRIVER = "/usr/bin/chromedriver"
SHOTS = os.environ.get("ORX_SHOTS")  # a folder for pictures of the pages

# What is played, as the browser itself counts it.
PLAYED = """const v = document.querySelector("video"), q = v.getVideoPlaybackQuality(), n = v.buffered.length;
return {time: v.currentTime, frames: q.totalVideoFrames, dropped: q.droppedVideoFrames, paused: v.paused, muted: v.muted,
        behind: n ? v.buffered.end(n - 1) - v.currentTime : -1, sound: v.webkitAudioDecodedByteCount,
        stalls: Number(v.dataset.stalls || 0), rate: v.playbackRate, state: v.readyState};"""

# The delays of the pictures that are shown from now on, by the bars burnt into them (clocksource.py).
WATCH = """window.delays = [];
const v = document.querySelector("video"), c = document.createElement("canvas"); c.width = 640; c.height = 40;
const x = c.getContext("2d", {willReadFrequently: true});
v.requestVideoFrameCallback(function look() {
  const now = Date.now(); x.drawImage(v, 0, 0, 640, 40, 0, 0, 640, 40);
  const p = x.getImageData(0, 20, 640, 1).data; let clock = 0;
  for (let i = 0; i < 32; i++) if (p[(i * 20 + 10) * 4] > 128) clock += 2 ** i;
  window.delays.push((now - clock) % 2 ** 32); v.requestVideoFrameCallback(look);
});"""

# Every control that a person can reach, with its accessible name, as the browser computes it.
FOCUSABLE = "a[href], button, input:not([type=hidden]), select, video[controls], [tabindex='0']"


class Chromium:
    def __init__(self, address, language="en", size=(1280, 800), dark=False, downloads=None):
        options = Options()
        for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--window-size=%d,%d" % size,
                         "--lang=" + language, "--autoplay-policy=document-user-activation-required"):
            options.add_argument(argument)
        if dark:
            options.add_argument("--force-dark-mode")
            options.add_argument("--blink-settings=preferredColorScheme=0")
        options.add_experimental_option("prefs", {"intl.accept_languages": language,
                                                  "download.default_directory": downloads or "/nonexistent"})
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.address = address
        self.driver = webdriver.Chrome(service=Service(DRIVER), options=options)

    def quit(self):
        self.driver.quit()

    def open(self, target):
        self.driver.get(self.address + target)

    def path(self):
        return self.driver.current_url[len(self.address):]

    def find(self, selector):
        return self.driver.find_element(By.CSS_SELECTOR, selector)

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def text(self, selector):
        return self.find(selector).text

    def run(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def press(self, *keys):
        webdriver.ActionChains(self.driver).send_keys(*keys).perform()

    def login(self, name, password):
        """By the keyboard alone, from wherever it wants a login."""
        field = self.find("#name")
        field.clear()
        field.send_keys(name, Keys.TAB, password, Keys.ENTER)

    def played(self):
        return self.run(PLAYED)

    def plays(self, frames=25, seconds=20):
        """Whether so many more pictures are decoded; what is played then. The browser counts anew with a new stream."""
        counted = []

        def enough():
            try:
                played = self.played()
            except WebDriverException:  # the page is on its way
                return None
            if not counted or played["frames"] < counted[-1]:
                counted.append(played["frames"])
            return played if played["frames"] >= counted[-1] + frames else None

        return wait_for(enough, seconds)

    def delays(self, pictures=50):
        """ms from the encoder to the screen, sorted."""
        self.run(WATCH)
        wait_for(lambda: self.run("return window.delays.length") >= pictures, 30)
        return sorted(self.run("return window.delays"))

    def tabbed(self):
        """The accessible names of what the key Tab reaches, in its order, and whether that was every control."""
        wanted = [e for e in self.all(FOCUSABLE) if e.is_displayed() and e.is_enabled()]
        names, seen = [], set()
        for _ in range(len(wanted) + 40):  # a video has controls of its own
            self.press(Keys.TAB)
            element = self.driver.switch_to.active_element
            if element.tag_name != "body" and element.id not in seen:
                seen.add(element.id)
                names.append(element.accessible_name)
        return names, [e.get_attribute("outerHTML")[:200] for e in wanted
                       if e.id not in seen and e.get_attribute("tabindex") != "-1"]

    def complaints(self, expected="status of (401|503)"):
        """What the console says: scripts that fail, things that the page's own policy forbids; an answer that asks for a
        password or for patience is none."""
        return [line["message"] for line in self.driver.get_log("browser")
                if line["level"] in ("SEVERE", "WARNING") and not re.search(expected, line["message"])]

    def shot(self, name, size=None):
        if not SHOTS:
            return
        if size:
            self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
                "width": size[0], "height": size[1], "deviceScaleFactor": 1, "mobile": False})
        picture = self.driver.execute_cdp_cmd("Page.captureScreenshot", {"format": "png"})["data"]
        with open(os.path.join(SHOTS, name + ".png"), "wb") as f:
            f.write(base64.b64decode(picture))
        if size:
            self.driver.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})
