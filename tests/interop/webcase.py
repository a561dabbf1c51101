"""orxweb beside a real server with programs, for tests that ask it and for those that look through a browser."""

import base64
import http.client
import os
import signal
import subprocess
from urllib.parse import quote, urlencode

from case import InteropCase
from orxserver import free_tcp_port, wait_for

WEB = os.environ.get("ORX_WEB", "orxweb")
PUSH = os.environ.get("ORX_PUSH", "orxpush")
OTHER = "live/Höf & \"Tür\".mp4"


class WebCase(InteropCase):
    push_more = ()  # for the pushers
    settings = {
        "SERVER": {"AuthType": "1", "ControlUsers": "1"},
        "USERS": {"SuperUser": "admin", "SuperPwd": "geheim", "NumUsers": "2", "UserName0": "guest",
                  "UserPwd0": "gast", "UserLevel0": "2", "UserName1": "star", "UserPwd1": "star"},
        "USERCTRL": {"UserDevList0": "live/cam1", "UserDevList1": "*"},
    }

    def setUp(self):
        super().setUp()
        self.web = None
        self.addCleanup(lambda: self.assertIn(self.end_web(), (0, None), self.said()))

    def begin(self, push=True, **settings):
        """Starts server, pushers and orxweb."""
        self.port = free_tcp_port()
        self.start(STATUS={"Socket": self.dir + "/orx.sock"},
                   STORAGE={"RecordEnable": "1", "RecordPath": self.dir + "/rec", "RecordAlways": "live/cam1",
                            "WideUnits": "1"},
                   WEB={"Listen": "127.0.0.1", "Port": self.port, "Title": "Box", "CachePath": self.dir + "/cache"},
                   **settings)
        self.pushers = []
        for name in ("live/cam1", OTHER) if push else ():
            self.pushers.append(subprocess.Popen([PUSH, "--loop", "--quiet", *self.push_more, self.server.url(quote(name))]))
            self.addCleanup(lambda p=self.pushers[-1]: (p.kill(), p.wait()))
        with open(self.dir + "/web.log", "w") as log:
            self.web = subprocess.Popen([WEB, "-c", self.dir + "/orx.cfg"], stderr=log)
        self.assertTrue(wait_for(lambda: "listening" in self.said()), self.said())
        if push:
            self.assertTrue(wait_for(lambda: self.ask("/api/recordings?program=live/cam1", basic="admin:geheim")[0] == 200))

    def said(self):
        with open(self.dir + "/web.log") as f:
            return f.read()

    def end_web(self):
        """SIGTERM, whatever is open; its exit status."""
        if self.web and self.web.poll() is None:
            self.web.send_signal(signal.SIGTERM)
            self.web.wait(5)
        return self.web and self.web.returncode

    def ask(self, target, method="GET", body=None, basic=None, **headers):
        """Status, headers and body of one answer; not its redirections."""
        headers = {name.replace("_", "-"): value for name, value in headers.items()}
        if basic:
            headers["Authorization"] = "Basic " + base64.b64encode(basic.encode()).decode()
        if isinstance(body, dict):
            body = urlencode(body)
            headers.setdefault("Content-Type", "application/x-www-form-urlencoded")
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        connection.request(method, target, body, headers)
        answer = connection.getresponse()
        result = answer.status, answer.headers, answer.read()
        connection.close()
        return result

    def login(self, name="admin", password="geheim", **extra):
        status, headers, _ = self.ask("/login", "POST", {"name": name, "password": password, **extra})
        self.assertEqual(303, status)
        return headers["Set-Cookie"].split(";")[0]
