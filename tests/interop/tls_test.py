"""TLS: a front with the configuration that is shipped takes it off, and the server knows who is behind it."""

import http.server
import os
import re
import socket
import ssl
import subprocess
import threading
import urllib.request

from case import InteropCase
from clients import Child, FfmpegPlayer, FfmpegPusher, Gst, GstPlayer, GstPusher, MpvPlayer
from orxserver import free_tcp_port, wait_for

RECIPE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../packaging/tls/stunnel.conf")
CLIENT = "127.0.0.9"  # somebody whose address is neither the front's nor the server's


class Page(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        self.send_response(200)
        self.end_headers()
        self.wfile.write(b"a page")

    def log_message(self, *_):
        pass


class Tls(InteropCase):
    def front(self):
        """Starts the server, its pages and the front, on ports of their own."""
        pages = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Page)
        threading.Thread(target=pages.serve_forever, daemon=True).start()
        self.addCleanup(pages.server_close)
        self.addCleanup(pages.shutdown)
        web, self.rtsps, self.https = free_tcp_port(), free_tcp_port(), free_tcp_port()
        self.start(SERVER={"EnableHttpProxy": 1, "HttpProxyListenPort": web, "HttpProxyTargetIp": "127.0.0.1",
                           "HttpProxyTargetPort": pages.server_port}, INTEROP={"ProxyProtocolFrom": "127.0.0.2"})
        with open(RECIPE) as f:
            recipe = f.read()
        for old, new in (("/run/credentials/orx-tls.service", self.dir), (":::322", "127.0.0.1:%d" % self.rtsps),
                         (":::443", "127.0.0.1:%d" % self.https), ("127.0.0.1:8554", "127.0.0.1:%d" % self.server.port),
                         ("127.0.0.1:80\n", "127.0.0.1:%d\n" % web)):
            self.assertIn(old, recipe)
            recipe = recipe.replace(old, new)
        with open(os.path.join(self.dir, "stunnel.conf"), "w") as f:
            f.write(recipe)
        pem = os.path.join(self.dir, "orx.pem")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                        "-subj", "/CN=localhost", "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", pem, "-out",
                        pem + ".crt"], check=True, stderr=subprocess.DEVNULL)
        with open(pem, "a") as f, open(pem + ".crt") as crt:
            f.write(crt.read())
        self.trust = ssl.create_default_context(cafile=pem + ".crt")
        self.stunnel = self.add(Child("stunnel", self.dir, ["stunnel4", "stunnel.conf"]))
        self.assertTrue(wait_for(lambda: "Configuration successful" in self.stunnel.output()), self.stunnel.output())

    def url(self, scheme, port, name="live/cam"):
        return "%s://127.0.0.1:%d/%s" % (scheme, port, name)

    def connect(self):
        plain = socket.create_connection(("127.0.0.1", self.rtsps), 10, (CLIENT, 0))
        return self.trust.wrap_socket(plain, server_hostname="127.0.0.1")

    def test_clients(self):
        """Pushers and players over rtsps://, and through the tunnel over https; each is known by its own address."""
        self.front()
        for make, options in ((FfmpegPusher, {}), (GstPusher, {"protocols": "protocols=tcp " + Gst.UNKNOWN})):
            with self.subTest(make.__name__):
                pusher = self.add(make(self.dir, self.url("rtsps", self.rtsps), **options))
                self.assertEqual(1, self.server.wait_stat(lambda s: s.lives == 1).lives)
                players = [self.add(play(self.dir, self.url(scheme, port), transport, 30, name=make.__name__ + play.__name__))
                           for play, transport, scheme, port in (
                               (FfmpegPlayer, "tcp", "rtsps", self.rtsps), (FfmpegPlayer, "https", "rtsp", self.https),
                               (MpvPlayer, "tcp", "rtsps", self.rtsps),
                               (GstPlayer, "tls", "rtsp", self.rtsps), (GstPlayer, "https", "rtsp", self.https))]
                self.assert_ended(players)
                self.assert_only(1)
                self.end(pusher)
                self.assert_shown(players, pusher, 30)
        seen = re.findall(r"Create session\(fd=\w+\) from (\S+)", self.server.output())
        self.assertLessEqual(set(seen), set(re.findall(r"accepted connection from (\S+)", self.stunnel.output())))
        self.assertEqual(2 * (1 + 3 + 2 * 2), len(seen), "a pusher, three players and two tunnels, twice")

    def test_peer(self):
        """The address of who is behind the front is known; datagrams do not come through it, pages do."""
        self.front()
        pusher = self.push(FfmpegPusher)  # without the front, and no header is wanted
        with self.connect() as line:
            port = line.getsockname()[1]
            line.sendall(("DESCRIBE %s RTSP/1.0\r\nCSeq: 1\r\nAccept: application/sdp\r\n\r\n" %
                          self.server.url()).encode())
            control = re.findall(rb"a=control:(\S+)", self.reply(line, b"m=video"))[-1].decode()
            track = control if "://" in control else self.server.url() + "/" + control
            for transport, status in (("RTP/AVP;unicast;client_port=40000-40001", b"461 "),
                                      ("RTP/AVP/TCP;unicast;interleaved=0-1", b"200 OK")):
                line.sendall(("SETUP %s RTSP/1.0\r\nCSeq: 2\r\nTransport: %s\r\n\r\n" % (track, transport)).encode())
                self.assertIn(b"RTSP/1.0 " + status, self.reply(line, b"\r\n\r\n"))
        self.assertRegex(self.server.output(), r"Create session\(fd=\w+\) from %s:%d\r?\n" % (CLIENT, port))
        page = urllib.request.urlopen("https://127.0.0.1:%d/" % self.https, timeout=10, context=self.trust)
        self.assertEqual(b"a page", page.read())
        self.end(pusher)

    def reply(self, line, text):
        got = b""
        while text not in got:
            more = line.recv(65536)
            self.assertTrue(more, got)
            got += more
        return got
