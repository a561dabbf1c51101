"""Every pusher with every player over every transport, live, recorded and exported: pictures, sound, and when they come.

A row is a pusher with a transport, a cell a player with one. The pictures that a player shows are told apart by their
sums, so that each has a place on the source's line of time; a click in the sound every two seconds has one as well.
What does not work is listed in KNOWN with its cause; any other fault makes the exit status 1."""

import argparse
import concurrent.futures
import fnmatch
import functools
import glob
import os
import re
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import zlib
from array import array

from clients import FFMPEG, FPS, HEIGHT, PICTURE, WIDTH, Child, Gst, mismatch, packets
from conformance import replies
from matrixdoc import Results
from orxserver import Server

ZMF_PROGRAM = os.environ.get("ORX_ZMF", "orxzmf")
DOC = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../docs/interop.md")
GOP = 2 * FPS
CLICK = 2  # seconds between the begins of two
LONG, SHORT = 60, 8  # seconds of the sources: of a live program, whose pusher ends before, and of a recording
SEEK = 3  # seconds into a recording
LIVE = 4 * FPS  # pictures that a live player is watched for; with sound until the second reports have come
IN_STEP = 0.04
SHIPPED = {"StandardPushers": 1, "StandardPlayers": 1, "UdpPushers": 1, "HoldPlayers": 5, "LowDelay": 1}

X264 = "-c:v libx264 -preset veryfast -bf 0"
AAC, PCMA, PCMU = "-c:a aac -ar 44100", "-c:a pcm_alaw -ar 8000 -ac 1", "-c:a pcm_mulaw -ar 8000 -ac 1"
FFMPEG_PUSHERS = {  # how the source is encoded, and the kinds of its pictures and sound
    "h264": (X264, "h264", ""),
    "h264-dump_extra": (X264 + " -bsf:v dump_extra", "h264", ""),
    "h264-repeat_headers": (X264 + " -x264-params repeat-headers=1", "h264", ""),
    "h264-bframes": ("-c:v libx264 -preset veryfast -bf 3", "h264", ""),
    "h264-aac44100": (X264 + " " + AAC, "h264", "aac"),
    "h264-pcma": (X264 + " " + PCMA, "h264", "pcma"),
    "h264-pcmu": (X264 + " " + PCMU, "h264", "pcmu"),
    "mjpeg": ("-c:v mjpeg -q:v 6 -huffman default -force_duplicated_matrix 1", "jpeg", ""),
    "copy-mp4": ("-c copy", "h264", "aac"),
    "h265": ("-c:v libx265 -preset ultrafast -x265-params log-level=none", "h265", ""),
}
GST_PUSHERS = {
    "gst-x264enc": ("x264enc key-int-max=%d" % GOP, "", "h264", ""),
    "gst-x265enc": ("x265enc key-int-max=%d speed-preset=ultrafast" % GOP, "", "h265", ""),
    "gst-jpegenc": ("jpegenc", "", "jpeg", ""),
    "gst-avenc_aac": ("x264enc key-int-max=%d" % GOP, "avenc_aac", "h264", "latm"),
}
ROWS = [*("ffmpeg %s %s" % (kind, transport) for kind in FFMPEG_PUSHERS for transport in ("tcp", "udp")),
        *(kind + " as-it-is" for kind in GST_PUSHERS)]
DECODERS = {"h264": "rtph264depay ! h264parse ! avdec_h264", "h265": "rtph265depay ! h265parse ! avdec_h265",
            "jpeg": "rtpjpegdepay ! avdec_mjpeg", "aac": "rtpmp4gdepay ! aacparse ! avdec_aac",
            "latm": "rtpmp4adepay ! aacparse ! avdec_aac",
            "pcma": "rtppcmadepay ! alawdec", "pcmu": "rtppcmudepay ! mulawdec"}
QUEUE = "queue max-size-time=0 max-size-bytes=0 max-size-buffers=500"  # longer than an encoder looks ahead
PARSERS = {"h264": " ! h264parse", "h265": " ! h265parse"}  # for a file, which rtspclientsink does without
RATES = {"aac": 44100, "latm": 44100, "pcma": 8000, "pcmu": 8000}

TRANSPORTS = ("tcp", "udp", "http")
PLAYERS = ("ffmpeg", "ffplay", "mpv", "playbin", "rtspsrc")
COLUMNS = {  # of a mode: what plays, and from where
    "live": [(p, t) for p in PLAYERS for t in TRANSPORTS] + [("copy", t) for t in TRANSPORTS],
    "recorded": [(p, t) for p in PLAYERS for t in TRANSPORTS],
    "exported": [(p, e) for p in PLAYERS[:4] for e in ("mp4", "mkv")],
}
KNOWN = [  # what does not work, as "cell: what is seen", and the cause
    (r"/copy-\w+: .*unknown timestamp",
     "ffmpeg as a player knows no time of the first packets of a stream with B-frames, whoever sends it, and does not write "
     "them to Matroska or MPEG-TS. It writes MP4 (`-c copy x.mp4`), or anything from a pusher with `-bf 0`."),
    (r"/(playbin|rtspsrc)-\w+: sound is",
     "GStreamer counts each track by when its packets come, until the second reports of both (ffmpeg sends one every 5 s) "
     "bring them together. What comes at once, at the start or after a seek, is squeezed, each track for itself, and "
     "ffmpeg puts many frames of AAC in a packet. 15 seconds after the start the sound is 3 ms off."),
    (r"/recorded/playbin-udp: ",
     "What is under way over UDP while GStreamer seeks meets a source that is taken apart (\"not-linked\")."),
    (r"^gst-avenc_aac .*/(recorded|exported)/.*: no (sound|picture)",
     "rtspclientsink sends AAC as MP4A-LATM, which is passed on live; recordings hold AAC as MPEG4-GENERIC alone."),
    (r"/playbin-\w+: (no sound|no picture)",
     "playbin leaves out a track when rtspsrc says too early that there are no more; rtspsrc in a pipeline links it later."),
    (r"/recorded/(ffmpeg|ffplay|mpv)-udp: .*breaks: \[\(0, [^)]*\)\]$",
     "ffmpeg plays from the begin before it seeks, and reads after the seek what waited in its UDP socket from before: a "
     "picture of H.265 or JPEG is shown then, where one of H.264 waits for a key picture."),
]


def sources(folder):
    """What is pushed: a test picture that never repeats, and clicks."""
    for name, seconds in ("long", LONG), ("short", SHORT):
        raw = ["-f", "lavfi", "-i", "testsrc2=size=%dx%d:rate=%d:duration=%d" % (WIDTH, HEIGHT, FPS, seconds), "-f", "lavfi",
               "-i", "aevalsrc='0.5*sin(2*PI*880*t)*lt(mod(t,%d),0.1)+0.01*(random(0)-0.5)':s=44100:d=%d" % (CLICK, seconds), "-pix_fmt", "yuv420p"]
        path = os.path.join(folder, name)
        subprocess.run(FFMPEG + raw + ["-c:v", "rawvideo", "-c:a", "pcm_s16le", path + ".mkv"], check=True)
        subprocess.run(FFMPEG + raw + ["-c:v", "libx264", "-preset", "veryfast", "-g", str(GOP), "-c:a", "aac",
                                       path + ".mp4"], check=True)


class Pusher:
    """A row's: how to start it, and what it encodes."""

    def __init__(self, row, folder):
        self.client, self.kind, self.transport = (row if row.startswith("ffmpeg ") else "gst " + row).split()
        self.folder = folder
        self.gst = self.client == "gst"
        *self.encoders, self.video, self.audio = (GST_PUSHERS if self.gst else FFMPEG_PUSHERS)[self.kind]

    def _ffmpeg(self, source, pace, output):
        path = os.path.join(self.folder, source + (".mp4" if self.kind == "copy-mp4" else ".mkv"))
        tracks = ["-map", "0:v", *(("-map", "0:a") if self.audio else ())]
        return FFMPEG + [*pace, "-i", path, *tracks, "-g", str(GOP), *self.encoders[0].split(), *output]

    def _gst(self, source, sink, parser=""):
        video, audio = self.encoders[0] + parser, self.encoders[1]
        line = "filesrc location=%s ! matroskademux name=d d.video_0 ! %s ! identity sync=true ! %s ! s. " % (
            os.path.join(self.folder, source + ".mkv"), QUEUE, video)
        if audio:
            line += "d.audio_0 ! %s ! identity sync=true ! audioconvert ! %s ! s. " % (QUEUE, audio)
        return (line + sink).split()

    def push(self, name, url, source, folder):
        if self.gst:
            return Gst(name, folder, self._gst(source, "rtspclientsink name=s location=" + url))
        return Child(name, folder, self._ffmpeg(source, ["-re"], [
            "-f", "rtsp", "-rtsp_transport", self.transport, url]))

    @functools.cache
    def reference(self, source):
        """What is pushed, made once more by the same encoder: the sums of its pictures, and which are keys."""
        path = os.path.join(self.folder, "%s-%s.mkv" % (source, self.kind))
        if not os.path.exists(path) and self.gst:
            line = self._gst(source, "matroskamux name=s ! filesink location=" + path, PARSERS.get(self.video, ""))
            argv = [word.replace("sync=true", "sync=false") for word in line]
            subprocess.run(["gst-launch-1.0", "-q", *argv], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        elif not os.path.exists(path):
            subprocess.run(self._ffmpeg(source, [], ["-flags", "+global_header", "-y", path]), check=True)
        said = subprocess.run(["ffmpeg", "-nostdin", "-hide_banner", "-nostats", "-i", path, "-map", "0:v", "-vf", "showinfo",
                               "-f", "null", "-"], check=True, capture_output=True, text=True).stderr
        shown = re.findall(r"iskey:(\d).* plane_checksum:\[(.*?)\]", said)
        return [sums for _, sums in shown], [i for i, (key, _) in enumerate(shown) if key == "1"]


class Watch:
    """A player and what it has shown, read from what it prints."""

    def __init__(self, child, audio):
        self.child, self.audio = child, audio
        self.began, self.first, self.count, self.at, self.rest = time.monotonic(), None, 0, 0, ""

    def look(self):
        """Counts its pictures."""
        with open(self.child.log, errors="replace") as f:
            f.seek(self.at)
            text = f.read()
        self.at += len(text.encode(errors="replace"))
        lines = (self.rest + text).split("\n")
        self.rest = lines.pop()
        self.count += sum(self.MARK in line for line in lines)
        if self.count and not self.first:
            self.first = time.monotonic() - self.began

    def run(self, pictures, seconds):
        """Until it has so many pictures, or ends. Whether it ended by itself."""
        while time.monotonic() - self.began < seconds:
            ended = not self.child.running()
            self.look()
            if ended or self.count >= pictures:
                break
            time.sleep(0.03)
        ended = not self.child.running()
        self.child.kill()
        return ended


class AvWatch(Watch):
    """ffmpeg, ffplay and mpv: filters tell of pictures and sound."""

    MARK = "plane_checksum"
    FILTERS = "showinfo", "silencedetect=n=-30dB:d=0.3"

    def __init__(self, player, transport, url, folder, name, audio, start=0, **_):
        rtsp = url.startswith("rtsp")
        if player == "mpv":
            argv = ["mpv", "--no-config", "--vo=null", "--ao=null", "--framedrop=no", "--msg-level=all=warn,ffmpeg=v",
                    "--vf=lavfi=[%s]" % self.FILTERS[0], "--af=lavfi=[%s]" % self.FILTERS[1], "--start=%d" % start,
                    *(["--rtsp-transport=" + transport] if rtsp else []), url]
        else:
            before = [*(["-rtsp_transport", transport] if rtsp else []), *(["-noaccurate_seek", "-ss", str(start)] if start and player == "ffmpeg" else ["-ss", str(start)] if start else [])]
            filters = ["-vf", self.FILTERS[0], "-af", self.FILTERS[1]]
            argv = [player, "-hide_banner", "-nostats", *before, *(
                ["-autoexit", "-noframedrop", *filters, url] if player == "ffplay" else
                ["-nostdin", "-i", url, *filters, "-fps_mode", "passthrough", "-f", "null", "-"])]
        super().__init__(Child(name, folder, argv, env={"SDL_VIDEODRIVER": "dummy", "SDL_AUDIODRIVER": "dummy"}), audio)

    def found(self):
        text = self.child.output()
        shown = re.findall(r"pts_time:([-\d.]+|NOPTS) .* plane_checksum:\[(.*?)\]", text)
        clicks = [float(t) for t in re.findall(r"silence_end: ([-\d.]+)", text)]
        return [(None if t == "NOPTS" else float(t), sums) for t, sums in shown], clicks


def seconds(text):
    """Of GStreamer's hours, minutes and seconds."""
    hours, minutes, rest = text.strip(",").split(":")
    return int(hours) * 3600 + int(minutes) * 60 + float(rest)


class GstWatch(Watch):
    """playbin and rtspsrc: sinks write all to files and tell when it was due."""

    MARK = "<v> rendering object"

    def __init__(self, player, transport, url, folder, name, audio, video, start=0):
        self.files = [os.path.join(folder, name + ending) for ending in (".v", ".a")]
        if url.startswith("rtsp"):
            url = url.replace("rtsp", Gst.schemes[transport], 1)
        sinks = ["filesink name=%s buffer-mode=unbuffered location=%s" % item for item in zip("va", self.files)]
        picture, sound = "video/x-raw,format=I420 ! ", "audioconvert ! audio/x-raw,format=S16LE,channels=1 ! "
        if player == "rtspsrc":
            line = "rtspsrc name=s location=%s latency=500 s. ! %s ! %s%s" % (url, DECODERS[video], picture, sinks[0])
            if audio:
                line += " s. ! %s ! %s%s" % (DECODERS[audio], sound, sinks[1])
            program, arguments = ("gst-launch-1.0", "-q"), line.split()
        else:
            program, arguments = ("gst-play-1.0", "--no-interactive", "-q"), [
                "--start-position=%d" % start, "--videosink=videoconvert ! " + picture + sinks[0],
                "--audiosink=" + sound + sinks[1], url]
        environment = {"GST_DEBUG": "2,basesink:5", "GST_DEBUG_NO_COLOR": "1", "GST_PLUGIN_FEATURE_RANK": "jpegparse:MAX,jpegdec:NONE"}
        super().__init__(Child(name, folder, ["env", *("%s=%s" % e for e in environment.items()), *program, *arguments]), audio)

    def found(self):
        times = {"v": [], "a": []}  # of each buffer: when it is due, how long it lasts, and whether it was written
        for sink, begin, end, due, _ in re.findall(
                r"<([va])> (?:got times start: (\S+), end: (\S+)|possibly waiting for clock to reach ([\d:.]+)|(rendering) object)",
                self.child.output()):
            if begin:
                times[sink].append([None, seconds(end) - seconds(begin), 0])
            elif times[sink] and due:
                times[sink][-1][0] = seconds(due)
            elif times[sink]:
                times[sink][-1][2] = 1
        return self._pictures(times["v"]), self._clicks(times["a"])

    def _pictures(self, times):
        shown = []
        with open(self.files[0], "rb") as f:
            for begin, _, rendered in times:
                data = f.read(PICTURE) if rendered else b""
                if len(data) == PICTURE:
                    y = WIDTH * HEIGHT
                    planes = data[:y], data[y:y * 5 // 4], data[y * 5 // 4:]
                    shown.append((begin, " ".join("%08X" % zlib.adler32(plane, 0) for plane in planes)))
        return shown

    def _clicks(self, times):
        clicks, quiet, rate = [], 0, RATES.get(self.audio)
        if not os.path.exists(self.files[1]):
            return []
        with open(self.files[1], "rb") as f:
            for begin, length, rendered in times:
                if rendered and begin is not None:
                    data = f.read(round(length * rate) * 2)
                    for i, sample in enumerate(array("h", data[:len(data) & ~1])):
                        if abs(sample) < 1000:
                            quiet += 1
                        else:
                            if quiet > 0.3 * rate:
                                clicks.append(begin + i / rate)
                            quiet = 0
        return clicks


def skew(pictures, clicks, sums):
    """How much later the sound is than the pictures around it, in seconds; None when there is none. At the last click:
    GStreamer squeezes what comes at once at the start, each track for itself."""
    number = {s: i for i, s in enumerate(sums)}
    for click in reversed(clicks):
        lines = [t - number[s] / FPS for t, s in pictures if t is not None and s in number and abs(t - click) < 0.5]
        if lines and max(t for t, _ in pictures if t is not None) > click + 0.2:  # the end of the sound is no click
            return (click - statistics.median(lines) + CLICK / 2) % CLICK - CLICK / 2
    return None


class Row:
    """A server, its pusher and all players of a row."""

    def __init__(self, name, columns, folder, pool):
        self.name, self.columns, self.pool = name, columns, pool
        self.pusher = Pusher(name, folder)
        self.live = LIVE * 2 if self.pusher.audio else LIVE
        self.server = Server()
        self.dir = self.server.dir
        self.root = os.path.join(self.dir, "rec")
        self.recorded = threading.Event()
        self.recording = None
        self.children = []

    def run(self, report):
        for source in "long", "short":
            self.pusher.reference(source)
        self.server.set("SERVER", EnableFilePrg=1, CacheLimit=10)
        self.server.set("INTEROP", **SHIPPED)
        self.server.set("STORAGE", RecordEnable=1, RecordPath=self.root, RecordAlways="rec/*", NeverLose=1, WideUnits=1)
        try:
            self.server.start()
            self._run(report)
        finally:
            for child in self.children:
                child.kill()
            status = self.server.quit()
            if self.server.faults() or status:
                report("server", "all", "", {"why": "server: exit status %s %s" % (status, self.server.faults())})
            self.server.remove()

    def _add(self, child):
        self.children.append(child)
        return child

    def _run(self, report):
        modes = {mode for mode, _, _ in self.columns}
        if modes & {"recorded", "exported"}:
            threading.Thread(target=self._record, daemon=True).start()
        copies = {}
        if "live" in modes:
            live = self._add(self.pusher.push("push", self.server.url(), "long", self.dir))
            self.server.wait_stat(lambda s: any("live/cam" in str(x) for x in s.sessions))
            time.sleep(1.5)  # into a group of pictures
            copies = {c: self._copy(c) for c in self.columns if c[1] == "copy"}
        futures = {self.pool.submit(self._cell, c): c for c in self.columns if c[1] != "copy"}
        for first in True, False:  # the live ones, whose pusher comes back when they have seen enough
            for future in concurrent.futures.as_completed(f for f, c in futures.items() if (c[0] == "live") == first):
                report(*futures[future], future.result())
            if first and copies:
                self._restart(live)
                for column, (child, path) in copies.items():
                    report(*column, self._copied(child, path))

    def _record(self):
        pusher = self._add(self.pusher.push("push-rec", self.server.url("rec/cam"), "short", self.dir))
        pusher.wait(60)
        end = time.monotonic() + 20
        while time.monotonic() < end and not self.recording:
            found = glob.glob(self.root + "/**/*.zmf", recursive=True)
            if found and "rec/cam" not in repr(self.server.stat()):
                self.recording = found[0]
            time.sleep(0.1)
        for ending in ("mp4", "mkv") if self.recording else ():
            subprocess.run([ZMF_PROGRAM, "export", self.recording, os.path.join(self.dir, "export." + ending)],
                           stdout=subprocess.DEVNULL)
        self.recorded.set()

    def _cell(self, column):
        """Runs one player: what became of it."""
        mode, player, transport = column
        url, frames, start = self.server.url(), self.live, 0
        if mode != "live":
            self.recorded.wait(90)
            if not self.recording:
                return {"why": "nothing was recorded"}
            url = os.path.join(self.dir, "export." + transport) if mode == "exported" else (
                self.server.url(os.path.relpath(self.recording, self.root)))
            frames, start = 10**6, SEEK if mode == "recorded" and player != "rtspsrc" else 0
        watch = (GstWatch if player in ("playbin", "rtspsrc") else AvWatch)(
            player, transport, url, self.dir, "-".join(column), self.pusher.audio, start=start, video=self.pusher.video)
        self._add(watch.child)
        ended = watch.run(frames, 30)
        try:
            return self._judge(watch, ended, mode, start)
        finally:
            for path in getattr(watch, "files", ()):
                if os.path.exists(path):
                    os.unlink(path)

    def _judge(self, watch, ended, mode, start):
        pictures, clicks = watch.found()
        shown = [sums for _, sums in pictures]
        sums, keys = self.pusher.reference("long" if mode == "live" else "short")
        if mode != "live":
            order = [sums.index(x) if x in sums else -1 for x in shown]
            jumps = [i for i in range(1, len(order)) if order[i] != order[i - 1] + 1]
            if start and order[:1] == [0] and jumps:  # playbin begins at the start, and asks for another place then
                shown, pictures = shown[jumps[-1]:], pictures[jumps[-1]:]
            keys = range(len(sums))
        why = mismatch(shown, (sums, keys))
        result = {"first": round(1000 * watch.first) if watch.first else None, "pictures": len(shown)}
        if not why and mode != "live":
            first, last = sums.index(shown[0]), sums.index(shown[-1])
            if first > start * FPS or last < len(sums) - 1 or not ended:
                why = "pictures %d to %d of %d, %s" % (first, last, len(sums), "ended" if ended else "does not end")
        elif not why and len(shown) < self.live:
            why = "%d pictures only" % len(shown)
        if shown and self.pusher.audio:
            off = skew(pictures, clicks, sums) if not why else None
            result["skew"] = None if off is None else round(off * 1000)
            if not why and (off is None or abs(off) > IN_STEP):
                why = "no sound" if off is None else "sound is %d ms off" % (off * 1000)
        return {**result, **({"why": why[:200]} if why else {})}

    def _copy(self, column):
        path = os.path.join(self.dir, "copy-%s.mkv" % column[2])
        return self._add(Child("copy-" + column[2], self.dir, FFMPEG + [
            "-rtsp_transport", column[2], "-i", self.server.url(), "-map", "0", "-c", "copy", "-flush_packets", "1", path])), path

    def _restart(self, live):
        """The pusher's power fails, and it comes back."""
        live.kill()
        self._add(self.pusher.push("push-again", self.server.url(), "long", self.dir))
        time.sleep(8)  # until the second report

    def _copied(self, child, path):
        ended = not child.running()
        child.stop()
        said = "; ".join(sorted({re.sub(r"^\[.*?\] |\d{3,}", "", line) for line in child.output().strip().splitlines()}))[:150]
        try:
            copied = packets(path)
        except (subprocess.CalledProcessError, ValueError):
            return {"why": "no file: " + said}
        why, result = ("ended before its pusher: " + said if ended else None), {}
        for kind, found in copied.items():
            times = [t for t, _ in found][1:]  # ffmpeg gives the first picture no time
            back = [(round(a, 3), round(b, 3)) for a, b in zip(times, times[1:]) if b <= a]
            result[kind] = len(times)
            if back:
                why = why or "%s steps back: %s" % (kind, back[:3])
            if (kind == "video" or self.pusher.audio) and not times:
                why = why or "no " + kind
            elif kind == "video" and len({d for _, d in found}) > len(found) - 10:
                why = why or "no picture of the second pusher"
        return {**result, **({"why": why} if why else {})}


def chosen(args):
    """The rows that are run."""
    if args.all or args.cells or os.environ.get("ORX_MATRIX") == "all":
        return ROWS
    commit = args.tenth or "HEAD"
    done = subprocess.run(["git", "rev-parse", commit], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                          cwd=os.path.dirname(os.path.abspath(__file__)))
    number = int(done.stdout[:8] or "0", 16) if done.returncode == 0 else 0
    return ROWS[number % 10::10]


def known(cell, why):
    """The number of the listed cause of a cell's fault; 0 when there is none."""
    return next((i for i, (seen, _) in enumerate(KNOWN, 1) if re.search(seen, "%s: %s" % (cell, why))), 0)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--all", action="store_true", help="every row; so does ORX_MATRIX=all")
    parser.add_argument("--tenth", metavar="COMMIT", help="the rows that a commit chooses (the default, with HEAD)")
    parser.add_argument("--cells", metavar="PATTERN", action="append",
                        help="cells by name, such as '*h264*/live/mpv-*'; may be given more than once")
    parser.add_argument("--write", metavar="DOC", help="put results into this document, and into a .json beside it")
    parser.add_argument("--slots", type=int, default=3 * (os.cpu_count() or 1), help="players at a time (%(default)s)")
    parser.add_argument("--list", action="store_true", help="only name the cells")
    args = parser.parse_args()
    results, unknown = Results(args.write or DOC, ROWS, COLUMNS, known), 0
    causes = [cause for _, cause in KNOWN]
    folder = tempfile.mkdtemp(prefix="orx-matrix-")
    began = time.monotonic()
    try:
        with concurrent.futures.ThreadPoolExecutor(args.slots) as pool:
            for row in chosen(args):
                columns = [(m, p, t) for m in COLUMNS for p, t in COLUMNS[m] if not args.cells or any(
                    fnmatch.fnmatch("%s/%s/%s-%s" % (row, m, p, t), c) for c in args.cells)]
                if args.list or not columns:
                    print("".join("%s/%s/%s-%s\n" % (row, *c) for c in columns), end="")
                    continue
                if not os.listdir(folder):
                    sources(folder)

                def report(mode, player, transport, result, row=row):
                    nonlocal unknown
                    cell = "%s/%s/%s-%s" % (row, mode, player, transport)
                    cause = known(cell, result["why"]) if "why" in result else None
                    unknown += cause == 0
                    print("%5.0f s  %s  %s  %s" % (time.monotonic() - began, cell, "ok" if cause is None else (
                        "cause %d" % cause if cause else "FAULT"), result), flush=True)
                    results.add(row, "%s/%s-%s" % (mode, player, transport), {**result, **({"cause": cause} if cause is not None else {})})

                Row(row, columns, folder, pool).run(report)
                if args.write:
                    results.write(causes)
        if not args.cells and not args.list:
            for change in results.changed_replies(replies(SHIPPED)):
                print("reply to " + change)
                unknown += not args.write
        if args.write:
            results.write(causes)
    finally:
        shutil.rmtree(folder, ignore_errors=True)
    print("%d cells do not work for no known cause, or replies have changed" % unknown)
    return 1 if unknown else 0


if __name__ == "__main__":
    sys.exit(main())
