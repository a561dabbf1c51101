"""A player of our own over UDP, for what real players do only now and then: it sends whatever datagrams it is
told to, and looks at every reply and every packet."""

import re
import socket
import struct
import time


def receiver_report(ssrc=0x11223344, about=0):
    """A receiver report with one block, and a description, as players send them (RFC 3550, section 6.4.2)."""
    block = struct.pack(">IIIIII", about, 0, 1000, 5, 0, 0)
    return (struct.pack(">BBHI", 0x81, 201, 7, ssrc) + block +
            struct.pack(">BBHIBB6sxx", 0x81, 202, 4, ssrc, 1, 6, b"player"))


class UdpPlayer:
    def __init__(self, url):
        self.url = url
        port = int(re.search(r":(\d+)/", url).group(1))
        self.connection = socket.create_connection(("127.0.0.1", port))
        self.connection.settimeout(10)
        self.held = b""
        self.cseq = 0
        self.session = ""
        self.rtp, self.rtcp = self._pair()
        self.numbers = []  # sequence numbers of the packets received
        self.reports = 0   # sender reports received
        self.server = None  # its ports, RTP and RTCP

    @staticmethod
    def _pair():
        """Two sockets on neighbouring ports."""
        for _ in range(50):
            rtp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            rtp.bind(("127.0.0.1", 0))
            rtcp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            try:
                rtcp.bind(("127.0.0.1", rtp.getsockname()[1] + 1))
            except (OSError, OverflowError):
                rtp.close()
                rtcp.close()
                continue
            rtp.setblocking(False)
            rtcp.setblocking(False)
            return rtp, rtcp
        raise AssertionError("no two neighbouring ports are free")

    def request(self, method, path="", headers=""):
        """Sends a request and returns its reply; whatever else arrives on the connection is an error."""
        self.cseq += 1
        session = "Session: %s\r\n" % self.session if self.session else ""
        self.connection.sendall(("%s %s%s RTSP/1.0\r\nCSeq: %d\r\n%s%s\r\n" % (
            method, self.url, path, self.cseq, session, headers)).encode())
        while b"\r\n\r\n" not in self.held:
            self._receive()
        head, self.held = self.held.split(b"\r\n\r\n", 1)
        text = head.decode() + "\r\n"
        length = int((re.search(r"Content-Length: (\d+)", text) or [0, 0])[1])
        while len(self.held) < length:
            self._receive()
        body, self.held = self.held[:length].decode(), self.held[length:]
        if not text.startswith("RTSP/1.0 200 OK\r\n") or "\r\nCSeq: %d\r\n" % self.cseq not in text or self.held:
            raise AssertionError("reply to %s: %r, and behind it %r" % (method, text, self.held))
        return text, body

    def _receive(self):
        data = self.connection.recv(65536)
        if not data:
            raise AssertionError("the server closed the connection")
        self.held += data

    def set_up(self, ports=None):
        """DESCRIBE and SETUP of the first track; ports: what it says, where its address is translated."""
        _, sdp = self.request("DESCRIBE", headers="Accept: application/sdp\r\n")
        control = re.search(r"^a=control:(\S+)", sdp[sdp.index("m="):], re.M).group(1)
        rtp, rtcp = ports or (self.rtp.getsockname()[1], self.rtcp.getsockname()[1])
        head, _ = self.request("SETUP", "/" + control,
                               "Transport: RTP/AVP/UDP;unicast;client_port=%d-%d\r\n" % (rtp, rtcp))
        self.session = re.search(r"\r\nSession: (\w+)", head).group(1)
        self.server = [("127.0.0.1", int(n)) for n in re.search(r"server_port=(\d+)-(\d+)", head).groups()]

    def send_rtp(self, data):
        self.rtp.sendto(data, self.server[0])

    def send_rtcp(self, data):
        self.rtcp.sendto(data, self.server[1])

    def collect(self, seconds, each=None):
        """Takes packets for so long; each(): what to do about every 20 ms meanwhile."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self._drain()
            if each:
                each()
            time.sleep(0.02)
        self._drain()

    def _drain(self):
        for sock in (self.rtp, self.rtcp):
            while True:
                try:
                    data = sock.recv(65536)
                except BlockingIOError:
                    break
                if sock is self.rtp:
                    self.numbers.append(struct.unpack(">H", data[2:4])[0])
                else:
                    self.reports += data[1] == 200

    def holes(self):
        return [(a, b) for a, b in zip(self.numbers, self.numbers[1:]) if b != (a + 1) & 0xFFFF]

    def close(self):
        for sock in (self.connection, self.rtp, self.rtcp):
            sock.close()
