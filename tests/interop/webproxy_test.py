"""The HTTP proxy in front of a real web server: pages, large files both ways, many and slow clients, a web server
that is down, and tunnelled players on the same port."""

import concurrent.futures
import hashlib
import http.client
import os
import random
import socket
import subprocess
import time
import unittest

from case import InteropCase
from clients import FPS, FfmpegPlayer, OrxPusher, mismatch
from orxserver import LONG, free_tcp_port, wait_for

# a proxied connection carries 8 KB in 20 ms per direction
LARGE = 100 * 1000 * 1000 if LONG else 2 * 1000 * 1000
PAGE = 20000


class WebServer:
    """busybox httpd with a page, a large file and a program that tells the digest of what it is sent."""

    def __init__(self, folder, port):
        self.root = os.path.join(folder, "www")
        self.port = port
        os.makedirs(os.path.join(self.root, "cgi-bin"))
        self.page = self._write("page", PAGE)
        self.large = self._write("large", LARGE)
        digest = os.path.join(self.root, "cgi-bin", "digest")
        with open(digest, "w") as f:
            f.write("#!/bin/sh\nprintf 'Content-Type: text/plain\\r\\n\\r\\n'\nhead -c $CONTENT_LENGTH | md5sum\n")
        os.chmod(digest, 0o755)
        self.process = None

    def _write(self, name, size):
        data = random.Random(name).randbytes(size)
        with open(os.path.join(self.root, name), "wb") as f:
            f.write(data)
        return data

    def start(self):
        self.process = subprocess.Popen(
            ["busybox", "httpd", "-f", "-p", "127.0.0.1:%d" % self.port, "-h", self.root],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        if not wait_for(lambda: connects(self.port), 10):
            raise AssertionError("busybox httpd does not start")

    def stop(self):
        if self.process:
            self.process.kill()
            self.process.wait()
            self.process = None


def connects(port):
    with socket.socket() as s:
        return s.connect_ex(("127.0.0.1", port)) == 0


class WebProxy(InteropCase):
    def setUp(self):
        super().setUp()
        self.port = free_tcp_port()
        self.web = WebServer(self.dir, free_tcp_port())
        self.addCleanup(self.web.stop)
        self.web.start()
        self.start(SERVER={"EnableHttpProxy": 1, "HttpProxyListenPort": self.port,
                           "HttpProxyTargetPort": self.web.port})

    def fetch(self, path, body=None):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=600)
        connection.request("POST" if body else "GET", path, body)
        reply = connection.getresponse()
        data = reply.read()
        connection.close()
        self.assertEqual(200, reply.status)
        return data

    def connect(self):
        sock = socket.create_connection(("127.0.0.1", self.port), timeout=30)
        self.addCleanup(sock.close)
        return sock

    def test_pages_and_large_files(self):
        self.assertEqual(self.web.page, self.fetch("/page"))
        with concurrent.futures.ThreadPoolExecutor() as pool:
            down = pool.submit(self.fetch, "/large")
            up = pool.submit(self.fetch, "/cgi-bin/digest", self.web.large)
            self.assertTrue(self.web.large == down.result())
            self.assertEqual(hashlib.md5(self.web.large).hexdigest(), up.result().split()[0].decode())

    def test_two_hundred_at_once(self):
        with concurrent.futures.ThreadPoolExecutor(200) as pool:
            pages = list(pool.map(self.fetch, ["/page"] * 200))
        self.assertEqual(200, pages.count(self.web.page))
        wait_for(lambda: len(self.server.descriptors()) == len(self.idle), 10)
        self.assertEqual(self.idle, self.server.descriptors())

    def test_slow_clients(self):
        slow = self.connect()
        for byte in b"GET /page HTTP/1.0\r\n":
            slow.sendall(bytes([byte]))
            time.sleep(0.05)
        slow.sendall(b"\r\n")
        self.assertEqual(self.web.page, self.fetch("/page"))
        data = b""
        while piece := slow.recv(1000):
            data += piece
            time.sleep(0.01)
        self.assertEqual(self.web.page, data.split(b"\r\n\r\n", 1)[1])

    def test_web_server_down(self):
        self.web.stop()
        waiting = self.connect()
        waiting.sendall(b"GET /page HTTP/1.0\r\n\r\n")
        waiting.settimeout(4)
        with self.assertRaises(socket.timeout):  # neither answered nor closed
            waiting.recv(1)
        self.web.start()
        self.assertEqual(self.web.page, self.fetch("/page"))

    def test_silent_connection(self):
        start = time.monotonic()
        self.assertEqual(b"", self.connect().recv(1))
        self.assertTrue(2 < time.monotonic() - start < 6)

    def test_tunnelled_player(self):
        pusher = self.add(OrxPusher(self.dir, self.server.url(), seconds=10))
        self.wait_program()
        url = "rtsp://127.0.0.1:%d/live/cam" % self.port
        player = self.add(FfmpegPlayer(self.dir, url, "http", 3 * FPS))
        self.assertEqual(self.web.page, self.fetch("/page"))
        self.assertEqual(0, player.wait(30))
        self.assertEqual([], player.complaints())
        self.assertGreaterEqual(len(player.pictures), 3 * FPS)
        pusher.stop()
        self.assertIsNone(mismatch(player.pictures, pusher.reference()))

    def test_stop_with_everything_open(self):
        for _ in range(20):
            self.connect().sendall(b"GET /large HTTP/1.0\r\n\r\n")
        self.connect()
        time.sleep(0.3)
        process, self.server.process = self.server.process, None
        start = time.monotonic()
        process.communicate(b"quit\n", 20)
        self.assertEqual(0, process.returncode)
        self.assertLess(time.monotonic() - start, 1)


if __name__ == "__main__":
    unittest.main()
