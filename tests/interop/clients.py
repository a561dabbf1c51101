"""Real clients as child processes: pushers that keep a copy of what they push, and players that hand over
every picture that they decode."""

import functools
import hashlib
import os
import re
import signal
import subprocess
import threading

WIDTH, HEIGHT, FPS, GOP = 256, 144, 25, 25
PICTURE = WIDTH * HEIGHT * 3 // 2  # bytes of a decoded picture, I420
PUSH_PROGRAM = os.environ.get("ORX_PUSH", "orxpush")
FFMPEG = ["ffmpeg", "-nostdin", "-hide_banner", "-nostats", "-loglevel", "warning"]


class Child:
    """A client. What it prints goes to a file; where pictures are wanted, its standard output is read."""

    ignored = ()  # patterns of warnings that are no fault of the server's

    def __init__(self, name, folder, argv, pictures=False, env=None):
        self.name = name
        self.argv = argv
        self.log = os.path.join(folder, name + ".log")
        self.pictures = []  # the digest of each picture, as it was decoded
        with open(self.log, "ab") as log:
            self.process = subprocess.Popen(
                argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE if pictures else log, stderr=log,
                cwd=folder, env=dict(os.environ, **(env or {})))
        self.reader = threading.Thread(target=self._read, daemon=True) if pictures else None
        if self.reader:
            self.reader.start()

    def _read(self):
        while True:
            picture = self.process.stdout.read(PICTURE)
            if len(picture) < PICTURE:
                return
            self.pictures.append(hashlib.md5(picture).hexdigest())

    def running(self):
        return self.process.poll() is None

    def wait(self, seconds):
        """Its exit status; "still running" (and no longer so) when time is up."""
        try:
            status = self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            status = "still running"
        if self.reader:
            self.reader.join()
            self.process.stdout.close()
        return status

    def stop(self, seconds=20):
        """Ends it as a user does, with an interrupt."""
        if self.running():
            self.process.send_signal(signal.SIGINT)
        return self.wait(seconds)

    def kill(self):
        """Ends it as a crash or a power cut does: it says goodbye to nobody."""
        if self.running():
            self.process.kill()
        return self.wait(20)

    def output(self):
        with open(self.log, errors="replace") as f:
            return f.read()

    def complaints(self):
        """What it printed that should not be there."""
        return [line for line in self.output().splitlines()
                if line.strip() and not any(re.search(p, line) for p in self.ignored)]


# ffmpeg tries ports for UDP until it finds free ones, and says so.
FFMPEG_REMARKS = ("bind failed: Address already in use", r"^ *Last message repeated \d+ times$")


def ffmpeg(*arguments, errors=None):
    """What it writes to its standard output."""
    return subprocess.run([*FFMPEG, *arguments], check=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=errors).stdout


def ffprobe(path, *arguments):
    """The lines that it tells of a file."""
    return subprocess.run(["ffprobe", "-loglevel", "error", *arguments, "-of", "csv=print_section=0", path], check=True,
                          stdout=subprocess.PIPE, text=True).stdout.split()


class FfmpegPlayer(Child):
    ignored = FFMPEG_REMARKS

    def __init__(self, folder, url, transport, frames=10**6, name="ffmpeg", options=(), before=()):
        super().__init__("%s-%s" % (name, transport), folder, FFMPEG + [
            "-rtsp_transport", transport, *before, "-i", url, "-map", "0:v", "-fps_mode", "passthrough",
            "-frames:v", str(frames), *options, "-f", "rawvideo", "-pix_fmt", "yuv420p", "pipe:1"], pictures=True)


class MpvPlayer(Child):
    # Its RTP reader gives the first picture no time, whoever sends the stream.
    ignored = ("No video PTS!", "Invalid video timestamp") + FFMPEG_REMARKS

    def __init__(self, folder, url, transport, frames=10**6, name="mpv", options=()):
        name = "%s-%s" % (name, transport)
        self.messages = os.path.join(folder, name + ".messages")
        super().__init__(name, folder, [
            "mpv", "--no-config", "--no-terminal", "--log-file=" + self.messages, "--rtsp-transport=" + transport,
            "--frames=%d" % frames, "--no-audio", *options, "--o=pipe:1", "--of=rawvideo", "--ovc=rawvideo", url],
            pictures=True)

    def complaints(self):
        with open(self.messages, errors="replace") as f:
            lines = [line.rstrip() for line in f if re.match(r"\[ *[0-9.]+\]\[[wef]\]", line)]
        return super().complaints() + [line for line in lines if not any(re.search(p, line) for p in self.ignored)]


@functools.cache
def scan_plugins():
    """The first program on a fresh machine that uses GStreamer looks at all its plugins, and complains of some."""
    subprocess.run(["gst-inspect-1.0", "fakesink"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


class Gst(Child):
    # A player's estimate of the sender's clock yields when pictures arrive faster than in real time: those since the
    # last key picture, or a recording, which is sent up to a second ahead. When the first packets of two tracks come
    # at once, it may say that there are no more tracks before it has made the first one: pipelines link it all the
    # same, with a remark or two, but playbin leaves it out ("not-linked"), so that none stands here for two tracks.
    # And at its end it waits for the reply to TEARDOWN for a tenth of a second only, and may stumble over its own
    # last event; it interrupts the PAUSE that it sends before that. Its decoder of JPEG leaves the colours
    # open, and says so.
    ignored = ("decreasing timestamp", "without knowing configured latency", "did not really configure latency",
               "too big, reset skew", "[dD]elayed linking", "has no handler with id", "Timed out waiting for TEARDOWN",
               "gst_event_set_seqnum: assertion", "colorimetry", "(receive|PAUSE) interrupted")
    CUT_OFF = "writev_bytes: Operation was cancelled"
    schemes = {"tcp": "rtspt", "udp": "rtspu", "http": "rtsph", "tls": "rtspst", "https": "rtspsh"}
    UNKNOWN = "tls-validation-flags=0"  # takes any certificate

    def __init__(self, name, folder, arguments, pictures=False, program=("gst-launch-1.0", "-q", "-e")):
        scan_plugins()
        super().__init__(name, folder, [*program, *arguments], pictures,
                         env={"GST_DEBUG": "2", "GST_DEBUG_NO_COLOR": "1"})

    def stop(self, seconds=20):
        """On an interrupt the pipeline is drained, which now and then never ends; the second one ends the process."""
        if self.running():
            self.process.send_signal(signal.SIGINT)
            try:
                self.process.wait(4)
            except subprocess.TimeoutExpired:
                status = super().stop(seconds)
                return 0 if status == -signal.SIGINT else status
        return self.wait(seconds)

    def wait(self, seconds):
        status = super().wait(seconds)
        return 0 if status == 1 and self.CUT_OFF in super().output() else status

    def output(self):
        """Without its words on the message to the server that its own end cut off."""
        return re.sub("[^\n]*%s.*" % self.CUT_OFF, "", super().output(), flags=re.S)


class GstPlayer(Gst):
    def __init__(self, folder, url, transport, frames=10**6, name="gst",
                 decoder="rtph264depay ! h264parse ! avdec_h264 ! videoconvert"):
        location = url.replace("rtsp", self.schemes[transport], 1)
        super().__init__("%s-%s" % (name, transport), folder, (
            "rtspsrc location=%s %s latency=500 ! %s ! video/x-raw,format=I420 ! identity eos-after=%d ! "
            "fdsink fd=1 sync=false" % (location, self.UNKNOWN, decoder, frames + 8)).split(), pictures=True)
        self.frames = frames

    def wait(self, seconds):
        status = super().wait(seconds)
        del self.pictures[self.frames:]  # what it squeezes out of the decoder at its end is not in order
        return status


class GstSeeker(Gst):
    """Plays everything that there is, from where it is told."""

    def __init__(self, folder, url, transport, start=0):
        super().__init__("gst-play-" + transport, folder, [
            "--start-position=%d" % start, "--audiosink=fakesink",
            "--videosink=videoconvert ! video/x-raw,format=I420 ! fdsink fd=1 sync=false",
            url.replace("rtsp", self.schemes[transport], 1)], True, ("gst-play-1.0", "--no-interactive", "-q"))


# Every player with every transport that it has.
PLAYERS = [
    (FfmpegPlayer, "tcp"), (FfmpegPlayer, "udp"), (FfmpegPlayer, "http"),
    (MpvPlayer, "tcp"), (MpvPlayer, "udp"),
    (GstPlayer, "tcp"), (GstPlayer, "udp"), (GstPlayer, "http"),
]


class Pusher(Child):
    copy = None  # the file that holds what was pushed
    alaw = None  # another one for its sound
    interrupted = 0  # its exit status when it is stopped

    def sound_copy(self):
        """The sound that was pushed: the arguments with which ffmpeg reads it."""
        return ["-f", "alaw", "-ar", "8000", self.alaw] if self.alaw else [self.copy]

    def reference(self):
        return decode(self.copy)

    def name_copies(self, folder, name):
        self.copy, self.alaw = (os.path.join(folder, name + ending) for ending in (".h264", ".alaw"))


class FfmpegPusher(Pusher):
    """Encodes a test picture as it goes; by default with everything that the encoder does by itself.
    sound: the options of a second input and its codec. transport: "" for ffmpeg's choice, UDP."""

    interrupted = 255

    def __init__(self, folder, url, name="ffmpeg-push", options=(), sound=(), transport="tcp"):
        self.copy = os.path.join(folder, name + ".mkv")
        outputs = "[f=rtsp:%sonfail=abort]%s|[f=matroska]%s" % (
            transport and "rtsp_transport=%s:" % transport, url, self.copy)
        super().__init__(name, folder, FFMPEG + [
            "-re", "-f", "lavfi", "-i", "testsrc2=size=%dx%d:rate=%d" % (WIDTH, HEIGHT, FPS), *sound,
            "-pix_fmt", "yuv420p", "-c:v", "libx264", "-preset", "veryfast", "-g", str(GOP), *options,
            "-flags", "+global_header", "-map", "0:v", *(("-map", "1:a") if sound else ()), "-f", "tee", outputs])


class GstPusher(Gst, Pusher):
    def __init__(self, folder, url, name="gst-push", sound=False, protocols="protocols=tcp"):
        self.name_copies(folder, name)
        line = ("rtspclientsink name=s %s location=%s "
                "videotestsrc is-live=true pattern=snow ! "
                "video/x-raw,format=I420,width=%d,height=%d,framerate=%d/1 ! "
                "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=%d bitrate=1000 ! "
                "h264parse config-interval=-1 ! tee name=v ! queue ! s. "
                "v. ! queue ! video/x-h264,stream-format=byte-stream ! filesink buffer-mode=unbuffered location=%s "
                % (protocols, url, WIDTH, HEIGHT, FPS, GOP, self.copy))
        if sound:
            line += ("audiotestsrc is-live=true wave=white-noise samplesperbuffer=160 ! "
                     "audio/x-raw,rate=8000,channels=1 ! alawenc ! tee name=a ! queue ! s. "
                     "a. ! queue ! filesink buffer-mode=unbuffered location=" + self.alaw)
        super().__init__(name, folder, line.split())


class OrxPusher(Pusher):
    ignored = (r"^orxpush: \d+ program.? started$", r"^orxpush: \d+ packets, \d+ bytes sent$")

    def __init__(self, folder, url, name="orxpush", seconds=10, options=(), sound=False):
        self.name_copies(folder, name)
        ffmpeg("-f", "lavfi", "-i", "testsrc2=size=%dx%d:rate=%d:duration=%d" % (WIDTH, HEIGHT, FPS, seconds),
               "-pix_fmt", "yuv420p", "-c:v", "libx264", "-preset", "ultrafast", "-g", str(GOP), "-bf", "0",
               "-f", "h264", self.copy)
        if sound:
            ffmpeg("-f", "lavfi", "-i", "anoisesrc=sample_rate=8000:duration=%d" % seconds, "-f", "alaw", self.alaw)
            options = (*options, "--audio", self.alaw)
        super().__init__(name, folder, [
            PUSH_PROGRAM, "--quiet", "--file", self.copy, "--fps", str(FPS), *options, url])


def decode(path, *options):
    """Its pictures, and the numbers of the key pictures."""
    raw = ffmpeg("-i", path, *options, "-fps_mode", "passthrough", "-f", "rawvideo", "-pix_fmt", "yuv420p", "pipe:1")
    pictures = [hashlib.md5(raw[i:i + PICTURE]).hexdigest() for i in range(0, len(raw) - PICTURE + 1, PICTURE)]
    shown = ffprobe(path, "-select_streams", "v", "-show_entries", "frame=key_frame")
    return pictures, [i for i, line in enumerate(shown) if line.startswith("1")]


def packets(path):
    """Its packets of either kind, "video" and "audio": (time in seconds, digest)."""
    found = {"video": [], "audio": []}
    for line in ffprobe(path, "-show_data_hash", "MD5", "-show_entries", "packet=codec_type,dts_time,data_hash"):
        kind, time, digest = (line + ",").split(",")[:3]
        if kind:  # the first packet of some encoders takes two lines
            found[kind].append((float(time), digest))
    return found


def duration(path):
    """Of a file, in seconds, as its head says."""
    return float(ffprobe(path, "-show_entries", "format=duration")[0])


def sound(source, *how):
    """The bytes of its sound: as they were sent, without any frames around them; or converted.
    source: how ffmpeg is to read it."""
    return ffmpeg(*source[:-1], "-i", source[-1], "-map", "0:a", *(how or ("-c", "copy", "-f", "data")), "pipe:1",
                  errors=subprocess.DEVNULL)


def mismatch(got, reference):
    """Compares a player's pictures with those pushed: from a key picture on, in order, without a hole.
    Returns None, or what is wrong."""
    pictures, keys = reference
    if not got:
        return "no picture was decoded"
    if any(pictures[k:k + len(got)] == got for k in keys):
        return None
    number = {digest: i for i, digest in enumerate(pictures)}
    order = [number.get(digest, "?") for digest in got]
    steps = [(i, a, b) for i, (a, b) in enumerate(zip(order, order[1:])) if a == "?" or b == "?" or b != a + 1]
    return "%d pictures from number %s on (key pictures: %s...); breaks: %s" % (
        len(got), order[0], keys[:5], steps[:10])
