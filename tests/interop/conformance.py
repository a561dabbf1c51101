"""What the server replies to each method, in each state of a player and of a pusher, over each transport."""

import base64
import socket
import threading

from orxserver import Server

METHODS = ["OPTIONS", "DESCRIBE", "ANNOUNCE", "SETUP", "RECORD", "PLAY", "PAUSE", "TEARDOWN", "GET_PARAMETER", "SET_PARAMETER",
           "REDIRECT", "NONSENSE", "QUICKPLAY", "GETPLAYLIST", "GETCAMINFO", "CAMCONTROL", "RECORDEX", "PUTCAMCFG",
           "GETCFGDIRECT", "SETCFGDIRECT"]
PLAYER = {"connected": [], "described": ["DESCRIBE"], "set up": ["DESCRIBE", "SETUP"], "playing": ["DESCRIBE", "SETUP", "PLAY"],
          "paused": ["DESCRIBE", "SETUP", "PLAY", "PAUSE"], "torn down": ["DESCRIBE", "SETUP", "PLAY", "TEARDOWN"]}
PUSHER = {"announced": ["ANNOUNCE"], "pusher set up": ["ANNOUNCE", "SETUP"], "pushing": ["ANNOUNCE", "SETUP", "RECORD"]}
STATES = {**PLAYER, **PUSHER}
TRANSPORTS = {"tcp": "RTP/AVP/TCP;unicast;interleaved=0-1", "udp": "RTP/AVP;unicast;client_port=%d-%d",
              "http": "RTP/AVP/TCP;unicast;interleaved=0-1"}
SDP = ("v=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=x\r\nt=0 0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"
       "a=fmtp:96 packetization-mode=1;sprop-parameter-sets=Z0LAHtoCgL/lwFqDAIMgAAADACAAAAZR4sXU,aM48gA==\r\n"
       "a=control:streamid=0\r\n")


class Peer:
    """A connection, or the two of a tunnel."""

    def __init__(self, server, name, transport, number):
        self.url, self.transport, self.session, self.seq, self.data = server.url(name), transport, "", 0, b""
        self.reads = self.writes = socket.create_connection(("127.0.0.1", server.port))
        self.reads.settimeout(0.4)
        self.udp = []
        if transport == "http":
            head = "%s /" + name + " HTTP/1.0\r\nx-sessioncookie: matrix%d\r\n%%s\r\n" % number
            self.reads.sendall((head % ("GET", "Accept: application/x-rtsp-tunnelled\r\n")).encode())
            self._head()
            self.writes = socket.create_connection(("127.0.0.1", server.port))
            self.writes.sendall((head % ("POST", "Content-Type: application/x-rtsp-tunnelled\r\nContent-Length: 32767\r\n")).encode())


    def _fill(self, size):
        while len(self.data) < size:
            more = self.reads.recv(65536)
            if not more:
                raise ConnectionError
            self.data += more

    def _head(self):
        """The next reply's head; interleaved media before it is dropped."""
        while True:
            self._fill(4)
            if self.data[:1] == b"$":
                size = 4 + int.from_bytes(self.data[2:4], "big")
                self._fill(size)
                self.data = self.data[size:]
            elif b"\r\n\r\n" in self.data:
                head, self.data = self.data.split(b"\r\n\r\n", 1)
                return head.decode(errors="replace")
            else:
                self._fill(len(self.data) + 1)

    def _transport(self):
        if self.transport != "udp":
            return TRANSPORTS[self.transport]
        self.udp = [socket.socket(type=socket.SOCK_DGRAM) for _ in range(2)]
        self.udp[0].bind(("127.0.0.1", 0))
        port = self.udp[0].getsockname()[1]
        return TRANSPORTS["udp"] % (port & ~1, port | 1)

    def ask(self, method, pusher=False):
        """The status of the reply, or what came in its place."""
        self.seq += 1
        body = SDP if method == "ANNOUNCE" else ""
        lines = ["%s %s RTSP/1.0" % (method, self.url + ("/streamid=0" if method == "SETUP" else "")), "CSeq: %d" % self.seq]
        lines += ["Session: " + self.session] if self.session else []
        lines += ["Transport: " + self._transport() + (";mode=record" if pusher else "")] if method == "SETUP" else []
        lines += ["Content-Type: application/sdp", "Content-Length: %d" % len(body)] if body else []
        text = ("\r\n".join(lines) + "\r\n\r\n" + body).encode()
        try:
            self.writes.sendall(base64.b64encode(text) if self.transport == "http" else text)
            head = self._head()
        except TimeoutError:
            return "no reply"
        except ConnectionError:
            return "closes"
        fields = dict(line.split(": ", 1) for line in head.split("\r\n")[1:] if ": " in line)
        self.session = fields.get("Session", self.session).split(";")[0]
        size = int(fields.get("Content-Length", 0))
        self._fill(size)
        self.data = self.data[size:]
        return head.split(" ")[1] + ("" if fields.get("CSeq") == str(self.seq) else ", no CSeq")

    def close(self):
        for s in {self.reads, self.writes, *self.udp}:
            s.close()


def push(server, ended):
    """A program for the players, until the event."""
    peer = Peer(server, "live/cam", "tcp", 0)
    for method in PUSHER["pushing"]:
        assert peer.ask(method, True) == "200", method
    number = 0
    while not ended.wait(0.02):
        number += 1
        rtp = b"\x80\xe0" + (number & 0xFFFF).to_bytes(2, "big") + (number * 1800).to_bytes(4, "big") + b"\0\0\0\1\x65" + bytes(40)
        peer.writes.sendall(b"$\0" + len(rtp).to_bytes(2, "big") + rtp)
    peer.close()


def replies(settings):
    """Of a server with these settings of [INTEROP]: {method: {state: {transport: reply}}}."""
    server, ended, table, number = Server(), threading.Event(), {}, 0
    server.set("INTEROP", **settings)
    server.set("SERVER", ConnectLimit=200)
    server.start()
    feeder = threading.Thread(target=push, args=(server, ended))
    feeder.start()
    try:
        server.wait_stat(lambda s: s.lives == 1)
        for method in METHODS:
            for state, steps in STATES.items():
                for transport in TRANSPORTS:
                    pusher = state in PUSHER
                    if pusher and transport == "http":
                        continue
                    number += 1
                    peer = Peer(server, "live/cam" if steps[:1] == ["DESCRIBE"] or method != "ANNOUNCE" and not pusher else
                                "live/push%d" % number, transport, number)
                    for step in steps:
                        peer.ask(step, pusher)
                    reply = peer.ask(method, pusher)
                    if reply not in ("closes", "no reply") and peer.ask("OPTIONS") == "closes":
                        reply += ", closes"
                    table.setdefault(method, {}).setdefault(state, {})[transport] = reply
                    peer.close()
        assert feeder.is_alive(), "the program for the players has ended"
        return table
    finally:
        ended.set()
        feeder.join()
        server.quit()
        server.remove()


def rows(table):
    """Lines of a table in Markdown; a reply that is the same over all transports stands there once."""
    yield "| method | " + " | ".join(STATES) + " |"
    yield "|---" * (len(STATES) + 1) + "|"
    for method, states in table.items():
        cells = []
        for state in STATES:
            got = states[state]
            cells.append(next(iter(got.values())) if len(set(got.values())) == 1 else
                         ", ".join("%s: %s" % (t.upper(), reply) for t, reply in got.items()))
        yield "| %s | %s |" % (method, " | ".join(cells))


if __name__ == "__main__":
    print("\n".join(rows(replies({"StandardPushers": 1, "StandardPlayers": 1, "UdpPushers": 1, "HoldPlayers": 5}))))
