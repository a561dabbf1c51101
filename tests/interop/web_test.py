"""orxweb beside a real server: logins, what accounts see, media, ranges, limits, and its end."""

import http.client
import json
import socket
import time
from urllib.parse import quote, urlencode

from orxserver import free_tcp_port, wait_for
from webcase import OTHER, WebCase


class WebTest(WebCase):
    def test_logging_in_and_out(self):
        self.begin(push=False)
        status, headers, _ = self.ask("/recordings/live/cam1?day=20261122")
        self.assertEqual((303, "/login?to=%2Frecordings%2Flive%2Fcam1%3Fday%3D20261122"), (status, headers["Location"]))
        for target in ("/live/live/cam1.mp4", "/live/live/cam1.jpg", "/status", "/api/recordings?program=live/cam1", "/nothing"):
            status, headers, _ = self.ask(target)
            self.assertEqual((401, True), (status, headers["WWW-Authenticate"].startswith("Basic ")), target)
        self.assertIsNone(self.ask("/live/live/cam1.jpg", Sec_Fetch_Site="same-origin")[1]["WWW-Authenticate"])

        status, headers, body = self.ask("/login", "POST", {"name": "<admin>", "password": "x", "to": "/system"})
        self.assertEqual(401, status)
        self.assertIn(b'role="alert"', body)
        self.assertIn(b'value="&lt;admin&gt;"', body)
        self.assertNotIn("Set-Cookie", headers)

        for wanted, given in (("/system", "/system"), ("//evil.example", "/"), ("https://evil.example", "/"), ("/\\evil", "/")):
            form = {"name": "admin", "password": "geheim", "to": wanted}
            status, headers, _ = self.ask("/login", "POST", form)
            self.assertEqual((303, given), (status, headers["Location"]))
        self.assertRegex(headers["Set-Cookie"], r"^orxweb=[0-9a-f]{64}; .*HttpOnly; SameSite=Lax$")
        status, headers, _ = self.ask("/login", "POST", form, Origin="https://127.0.0.1:%d" % self.port)
        self.assertIn("Secure", headers["Set-Cookie"])
        cookie = headers["Set-Cookie"].split(";")[0]

        for evil in ({"Origin": "http://evil.example"}, {"Origin": "null"}, {"Sec_Fetch_Site": "cross-site"},
                     {"Referer": "http://evil.example/a"}):
            self.assertEqual(403, self.ask("/logout", "POST", "", Cookie=cookie, **evil)[0])
            self.assertEqual(403, self.ask("/login", "POST", form, **evil)[0])
        self.assertEqual(405, self.ask("/logout", Cookie=cookie)[0])
        self.assertEqual(200, self.ask("/system", Cookie=cookie)[0])
        self.assertEqual(303, self.ask("/logout", "POST", "", Cookie=cookie)[0])
        self.assertEqual(303, self.ask("/system", Cookie=cookie)[0])
        self.assertEqual([], self.server.faults())

    def test_wrong_passwords_slow_down(self):
        self.begin(push=False)
        wrong = [self.ask("/login", "POST", {"name": "admin", "password": str(i)}) for i in range(5)]
        self.assertEqual(401, wrong[0][0])
        self.assertEqual(429, wrong[-1][0])
        self.assertIn(b'role="alert"', wrong[-1][2])
        self.assertGreater(int(wrong[-1][1]["Retry-After"]), 0)
        self.assertEqual(429, self.ask("/login", "POST", {"name": "admin", "password": "geheim"})[0])
        self.login("guest", "gast")

    def test_sessions_end_with_their_password(self):
        self.begin()
        cookie = self.login()
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        connection.request("GET", "/live/live/cam1.mp4", headers={"Cookie": cookie})
        stream = connection.getresponse()
        self.assertEqual(200, stream.status)
        with open(self.dir + "/orx.cfg") as f:
            text = f.read()
        with open(self.dir + "/orx.cfg", "w") as f:
            f.write(text.replace("SuperPwd=geheim", "SuperPwd=anders"))
        self.assertTrue(wait_for(lambda: self.ask("/system", Cookie=cookie)[0] == 303))
        with self.assertRaises(http.client.IncompleteRead):  # what was open ends as well
            stream.read()
        self.login(password="anders")

    def test_visitors_behind_a_front(self):
        """A PROXY header of a front names the visitor, and his wrong passwords are his; strangers name nobody."""
        self.begin(push=False, INTEROP={"ProxyProtocolFrom": "127.0.0.0/8"},
                   SERVER={**self.settings["SERVER"], "EnableHttpProxy": "1", "HttpProxyListenPort": free_tcp_port()})

        def wrong(name, address, front="127.0.0.2"):
            form = urlencode({"name": name, "password": "x"})
            with socket.create_connection(("127.0.0.1", self.port), source_address=(front, 0)) as s:
                s.sendall(("PROXY TCP4 %s 127.0.0.1 4711 80\r\n" % address).encode())
                s.sendall(("POST /login HTTP/1.1\r\nHost: box\r\nConnection: close\r\nContent-Length: %d\r\n"
                           "Content-Type: application/x-www-form-urlencoded\r\n\r\n%s" % (len(form), form)).encode())
                return int(s.makefile("rb").readline().split()[1])

        self.assertEqual([401] * 10, [wrong("name%d" % i, "203.0.113.5") for i in range(10)])
        self.assertEqual(429, wrong("one", "203.0.113.5"))
        self.assertEqual(401, wrong("one", "203.0.113.6"))
        # the web port's connections carry strangers' bytes, whatever the list says
        self.assertEqual(400, wrong("one", "203.0.113.6", "127.0.0.1"))

    def test_headers_of_fronts_without_the_web_port(self):
        self.begin(push=False, INTEROP={"ProxyProtocolFrom": "127.0.0.1"},
                   SERVER={**self.settings["SERVER"], "EnableHttpProxy": "0"})
        for front, status in (("127.0.0.1", b" 401 "), ("127.0.0.2", b" 400 ")):  # no machine of this one; no front
            with socket.create_connection(("127.0.0.1", self.port), source_address=(front, 0)) as s:
                s.sendall(b"PROXY TCP4 203.0.113.5 127.0.0.1 4711 80\r\nGET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")
                self.assertIn(status, s.makefile("rb").readline())

    def test_accounts_see_what_is_theirs(self):
        self.begin()
        guest, admin = self.login("guest", "gast"), self.login()
        other = quote(OTHER[:-4]) + "%2Emp4"
        page = self.ask("/", Cookie=admin, Accept_Language="de")
        self.assertIn(b'<html lang="de">', page[2])
        self.assertIn(('href="/live/%s"' % other).encode(), page[2])
        self.assertIn("Höf &amp; &quot;Tür&quot;".encode(), page[2])
        page = self.ask("/", Cookie=guest)
        self.assertIn(b'href="/live/live/cam1"', page[2])
        self.assertNotIn("Höf".encode(), page[2])
        for target in ("/live/" + other, "/live/" + other + ".mp4", "/live/" + other + ".jpg", "/recordings/" + other,
                       "/api/recordings?program=" + quote(OTHER), "/system", "/status", "/metrics", "/nothing"):
            self.assertIn(self.ask(target, Cookie=guest)[0], (403, 404), target)
        self.assertEqual(403, self.ask("/status", basic="star:star")[0])  # a list of '*' names no program
        for target in ("/live/" + other, "/live/live/cam1", "/recordings/live/cam1", "/system", "/status", "/metrics", "/health"):
            status, headers, _ = self.ask(target, Cookie=admin)
            self.assertEqual(200, status, target)
            self.assertEqual("no-store", headers["Cache-Control"])
            self.assertEqual("nosniff", headers["X-Content-Type-Options"])
            self.assertRegex(headers["Content-Security-Policy"], "^default-src 'none'.*frame-ancestors 'none'$")
        for target in ("/status", "/metrics", "/health"):
            self.assertEqual(200, self.ask(target, basic="admin:geheim")[0])

    def test_accounts_of_a_camera(self):
        """They are known at their program alone: to who logs in for it, and to machines that ask for it."""
        with open(self.dir + "/cam.cfg", "w") as f:
            f.write("[USERS]\r\nNumUsers=1\r\nUserName0=ann\r\nUserPwd0=annpw\r\nUserLevel0=1\r\n[VIDEO]\r\nSize=1\r\n")
        self.push_more = ("--camcfg", self.dir + "/cam.cfg")
        self.begin(SERVER={"AuthType": "1", "ControlUsers": "0"})
        days = "/api/recordings?program=live/cam1"
        mp4 = json.loads(self.ask(days, basic="admin:geheim")[2])[0]["mp4"]
        self.assertTrue(wait_for(lambda: self.ask("/login", "POST", {"name": "ann", "password": "annpw", "to": mp4})[0] == 303))
        for target in (mp4, days, "/live/live/cam1", "/live/live/cam1.jpg", "/recordings/live/cam1"):
            self.assertTrue(wait_for(lambda t=target: self.ask(t, basic="ann:annpw")[0] == 200), target)
        self.assertEqual(401, self.ask("/system", basic="ann:annpw")[0])

    def test_open_box(self):
        self.begin(push=False, SERVER={"AuthType": "0", "EnableHttpProxy": "1", "HttpProxyListenPort": free_tcp_port()})
        self.assertEqual(200, self.ask("/")[0])
        self.assertEqual(303, self.ask("/system")[0])
        self.assertEqual(401, self.ask("/status")[0])
        self.assertEqual(200, self.ask("/status", Cookie=self.login())[0])
        self.assertEqual(403, self.ask("/status", Cookie=self.login("guest", "gast"))[0])

    def test_live_ends_with_the_program(self):
        self.begin()
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        connection.request("GET", "/live/live/cam1.mp4", headers={"Cookie": self.login("guest", "gast")})
        answer = connection.getresponse()
        self.assertEqual(200, answer.status)
        self.assertRegex(answer.headers["Content-Type"], 'video/mp4; codecs="avc1')
        self.assertEqual(b"ftyp", answer.read(8)[4:])
        self.assertEqual(65536, len(answer.read(65536)))
        before = time.monotonic()
        self.assertEqual(0, self.end_web())
        self.assertLess(time.monotonic() - before, 2)
        connection.close()

    def test_recordings_in_ranges(self):
        self.begin()
        cookie = self.login("guest", "gast")
        rows = wait_for(lambda: [row for row in json.loads(self.ask("/api/recordings?program=live/cam1", Cookie=cookie)[2])
                                 if row["mp4"]])
        self.pushers[0].terminate()  # the recording ends: its bytes stay the same
        rows = wait_for(lambda: [row for row in json.loads(self.ask("/api/recordings?program=live/cam1", Cookie=cookie)[2])
                                 if row["mp4"] and row["state"] == "complete"])
        self.assertRegex(rows[0]["start"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d$")
        mp4 = rows[0]["mp4"]
        self.assertEqual(401, self.ask(mp4)[0])
        first = self.ask(mp4, Cookie=cookie)
        self.assertIn(first[0], (200, 503))
        self.assertTrue(first[0] == 200 or first[1]["Retry-After"] == "1")
        self.assertTrue(wait_for(lambda: self.ask(mp4, "HEAD", Cookie=cookie)[0] == 200))
        _, headers, whole = self.ask(mp4, Cookie=cookie)
        tag = headers["ETag"]
        self.assertEqual(("bytes", str(len(whole))), (headers["Accept-Ranges"], headers["Content-Length"]))
        self.assertEqual(str(len(whole)), self.ask(mp4, "HEAD", Cookie=cookie)[1]["Content-Length"])
        n = len(whole)
        for given, first, last in (("bytes=0-99", 0, 99), ("bytes=%d-" % (n - 5), n - 5, n - 1), ("bytes=-7", n - 7, n - 1),
                                   ("bytes=1000-%d" % (n * 2), 1000, n - 1)):
            status, headers, part = self.ask(mp4, Cookie=cookie, Range=given, If_Range=tag)
            self.assertEqual((206, "bytes %d-%d/%d" % (first, last, n)), (status, headers["Content-Range"]))
            self.assertEqual(whole[first:last + 1], part)
        for given in ({"Range": "bytes=0-1,4-5"}, {"Range": "bytes=0-99", "If_Range": '"other"'}):
            self.assertEqual((200, n), (lambda a: (a[0], len(a[2])))(self.ask(mp4, Cookie=cookie, **given)))
        status, headers, _ = self.ask(mp4, Cookie=cookie, Range="bytes=%d-" % n)
        self.assertEqual((416, "bytes */%d" % n), (status, headers["Content-Range"]))
        self.assertEqual(304, self.ask(mp4, Cookie=cookie, If_None_Match=tag)[0])
        self.assertEqual(200, self.ask(mp4, "HEAD", Cookie=cookie, Range="bytes=0-9")[0])
        disposition = self.ask(mp4 + "?download=1", "HEAD", Cookie=cookie)[1]["Content-Disposition"]
        self.assertRegex(disposition, r'^attachment; filename="live_cam1[-_0-9A-Za-z]+\.mp4"; ')
        page = self.ask("/recordings/live/cam1?at=" + rows[0]["start"], Cookie=cookie)
        self.assertEqual(200, page[0])
        self.assertIn(mp4.encode(), page[2])
        self.assertEqual(400, self.ask("/recordings/live/cam1?at=now", Cookie=cookie)[0])
        self.assertIn(self.ask("/recordings/live/cam1/20200101/x.mp4", Cookie=cookie)[0], (404,))

    def test_limits_and_a_server_that_goes(self):
        self.begin(push=False)
        cookie = self.login()
        self.assertEqual(405, self.ask("/", "DELETE", Cookie=cookie)[0])
        self.assertEqual((405, "GET, HEAD"), (lambda a: (a[0], a[1]["Allow"]))(self.ask("/system", "POST", "", Cookie=cookie)))
        self.assertEqual(400, self.ask("/login", "POST", {"user": "admin"})[0])
        self.assertEqual(400, self.ask("/api/recordings", Cookie=cookie)[0])
        self.assertEqual(404, self.ask("/live/a//b", Cookie=cookie)[0])
        self.assertEqual(413, self.ask("/login", "POST", "name=" + "a" * 100000)[0])
        self.assertEqual(431, self.ask("/", Cookie="a" * 200000)[0])
        self.assertEqual(200, self.ask("/health", basic="admin:geheim")[0])
        self.server.quit()
        self.assertTrue(wait_for(lambda: self.ask("/health")[0] == 503))
        self.assertEqual(503, self.ask("/", Cookie=cookie)[0])
        self.assertEqual(503, self.ask("/login", "POST", {"name": "admin", "password": "geheim"})[0])
        self.assertEqual(0, self.end_web())
