#!/usr/bin/python3
"""Cameras that nobody here wrote: gst-rtsp-server. Debian's own python3 has its bindings.

gstcamera.py PORT [basic|digest|apart]: /h264 with AAC, /h265, /mjpeg, /g711 with H.264, and /udponly. With a scheme
they want the name "ann" and the password "ann:pw@/". Who asks for one program shares its pipeline, unless they are kept
apart: where several set one up at the same moment the library aborts once in a while ("gst_rtsp_media_get_rates")."""

import sys

import gi

for name in ("Gst", "GstRtsp", "GstRtspServer"):
    gi.require_version(name, "1.0")
from gi.repository import GLib, Gst, GstRtsp, GstRtspServer  # noqa: E402

PICTURES = "videotestsrc is-live=true pattern=ball ! video/x-raw,width=320,height=240,framerate=25/1 ! "
SOUND = "audiotestsrc is-live=true ! audioconvert ! audioresample ! "
H264 = PICTURES + "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=25 ! rtph264pay name=pay0 pt=96 "
PROGRAMS = {
    "/h264": H264 + SOUND + "audio/x-raw,rate=44100,channels=2 ! avenc_aac ! rtpmp4gpay name=pay1 pt=97",
    "/h265": PICTURES + "x265enc tune=zerolatency speed-preset=ultrafast key-int-max=25 ! rtph265pay name=pay0 pt=96",
    "/mjpeg": PICTURES + "videoconvert ! video/x-raw,format=I420 ! jpegenc ! rtpjpegpay name=pay0 pt=26",
    "/g711": H264 + SOUND + "audio/x-raw,rate=8000,channels=1 ! alawenc ! rtppcmapay name=pay1 pt=8",
    "/udponly": H264,
}
USER, PASSWORD = "ann", "ann:pw@/"


def factory(path, launch, locked, shared):
    made = GstRtspServer.RTSPMediaFactory()
    made.set_launch("( %s )" % launch)
    made.set_shared(shared)
    if path == "/udponly":
        made.set_protocols(GstRtsp.RTSPLowerTrans.UDP)
    if locked:
        permissions = GstRtspServer.RTSPPermissions()
        for right in ("media.factory.access", "media.factory.construct"):
            permissions.add_permission_for_role("viewer", right, True)
        made.set_permissions(permissions)
    return made


def lock(scheme):
    auth = GstRtspServer.RTSPAuth()
    token = GstRtspServer.RTSPToken()
    token.set_string("media.factory.role", "viewer")
    if scheme == "basic":
        auth.add_basic(GstRtspServer.RTSPAuth.make_basic(USER, PASSWORD), token)
    else:
        auth.set_supported_methods(GstRtsp.RTSPAuthMethod.DIGEST)
        auth.add_digest(USER, PASSWORD, token)
    return auth


def main():
    Gst.init(None)
    word = sys.argv[2] if len(sys.argv) > 2 else ""
    scheme = "" if word == "apart" else word
    server = GstRtspServer.RTSPServer()
    server.set_address("127.0.0.1")
    server.set_service(sys.argv[1])
    server.get_thread_pool().set_max_threads(-1)  # a camera that begins keeps no other waiting
    if scheme:
        server.set_auth(lock(scheme))
    for path, launch in PROGRAMS.items():
        server.get_mount_points().add_factory(path, factory(path, launch, scheme, word != "apart"))
    if not server.attach(None):
        sys.exit("port %s is taken" % sys.argv[1])
    print("ready", flush=True)
    GLib.MainLoop().run()


if __name__ == "__main__":
    main()
