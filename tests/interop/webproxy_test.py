"""The HTTP proxy in front of a web server: pages, large files both ways, many and slow clients, and a web server that
is down."""

import concurrent.futures
import http.client
import http.server
import random
import socket
import threading
import time

from case import InteropCase
from orxserver import LONG, free_tcp_port

# a proxied connection carries 8 KB in 20 ms per direction
LARGE = random.Random(1).randbytes(100 * 1000 * 1000 if LONG else 2 * 1000 * 1000)
PAGE = random.Random(2).randbytes(20000)
MANY = 200


class WebServer(http.server.ThreadingHTTPServer):
    request_queue_size = MANY
    daemon_threads = True
    block_on_close = False
    together = threading.Barrier(MANY)

    class RequestHandlerClass(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            if self.path == "/together":  # answered when all have asked
                self.server.together.wait(60)
            self.answer(LARGE if self.path == "/large" else PAGE)

        def do_POST(self):
            self.answer(self.rfile.read(int(self.headers["Content-Length"])))

        def answer(self, body):
            self.send_response(200)
            self.end_headers()
            self.wfile.write(body)

        def log_message(self, *_):
            pass

    def __init__(self, port):
        super().__init__(("127.0.0.1", port), self.RequestHandlerClass)
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def handle_error(self, *_):
        pass  # clients that leave are part of the tests


class WebProxy(InteropCase):
    def setUp(self):
        super().setUp()
        self.port, self.target = free_tcp_port(), free_tcp_port()
        self.start(SERVER={"EnableHttpProxy": 1, "HttpProxyListenPort": self.port, "HttpProxyTargetPort": self.target})

    def serve(self):
        web = WebServer(self.target)
        self.addCleanup(web.server_close)
        self.addCleanup(web.shutdown)

    def ask(self, path, body=None):
        """Sends a request at once with its connection: of those that say nothing only 128 are kept."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=100)
        connection.request("POST" if body else "GET", path, body)
        return connection

    def fetch(self, connection):
        reply = connection.getresponse()
        data = reply.read()
        connection.close()
        return data

    def connect(self):
        sock = socket.create_connection(("127.0.0.1", self.port), timeout=30)
        self.addCleanup(sock.close)
        return sock

    def test_large_files(self):
        self.serve()
        with concurrent.futures.ThreadPoolExecutor() as pool:
            both = [pool.submit(lambda a=a: self.fetch(self.ask(*a))) for a in (("/large",), ("/echo", LARGE))]
            self.assertTrue(all(LARGE == one.result() for one in both))

    def test_two_hundred_at_once(self):
        self.serve()
        connections = [self.ask("/together") for _ in range(MANY)]
        self.assertEqual(MANY, [self.fetch(one) for one in connections].count(PAGE))
        self.assert_descriptors(self.idle)

    def test_slow_clients(self):
        self.serve()
        slow = self.connect()
        for byte in b"GET /page HTTP/1.0\r\n\r\n":
            slow.sendall(bytes([byte]))
            time.sleep(0.05)
        self.assertEqual(PAGE, self.fetch(self.ask("/page")))
        data = b""
        while piece := slow.recv(1000):
            data += piece
            time.sleep(0.01)
        self.assertEqual(PAGE, data.split(b"\r\n\r\n", 1)[1])

    def test_web_server_down(self):
        waiting = self.connect()
        waiting.sendall(b"GET /page HTTP/1.0\r\n\r\n")
        waiting.settimeout(4)
        with self.assertRaises(socket.timeout):  # neither answered nor closed
            waiting.recv(1)
        self.serve()
        self.assertEqual(PAGE, self.fetch(self.ask("/page")))

    def test_stop_with_everything_open(self):
        self.serve()
        for _ in range(20):
            self.connect().sendall(b"GET /large HTTP/1.0\r\n\r\n")
        self.connect()
        self.assertTrue(self.server.wait_output("accept(", 21))
        start = time.monotonic()
        self.assertEqual(0, self.server.quit())
        self.assertLess(time.monotonic() - start, 1)
