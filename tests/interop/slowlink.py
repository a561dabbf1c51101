#!/usr/bin/env python3
"""A point-to-point link between two network namespaces that delays and loses packets, for kernels without netem.

slowlink.py NETNS_A ADDRESS_A NETNS_B ADDRESS_B DELAY_MS LOSS_PERCENT

The link appears as the interface "wan" with the given address (10.0.0.1/24) in each. It is there once "ready" is
printed, and goes away with the program.
"""
import collections
import ctypes
import fcntl
import os
import random
import select
import struct
import subprocess
import sys
import time

TUNSETIFF = 0x400454CA
IFF_TUN_NO_PI = 0x1001
CLONE_NEWNET = 0x40000000


def open_end(netns, address):
    libc = ctypes.CDLL(None, use_errno=True)
    with open(f"/run/netns/{netns}", "rb") as handle:
        if libc.setns(handle.fileno(), CLONE_NEWNET) != 0:
            sys.exit(f"setns {netns}: {os.strerror(ctypes.get_errno())}")
    tun = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK)
    fcntl.ioctl(tun, TUNSETIFF, struct.pack("16sH", b"wan", IFF_TUN_NO_PI))
    subprocess.run(["ip", "address", "add", address, "dev", "wan"], check=True)
    subprocess.run(["ip", "link", "set", "wan", "up"], check=True)
    return tun


def main():
    delay, loss = float(sys.argv[5]) / 1000, float(sys.argv[6]) / 100
    ends = [open_end(sys.argv[1], sys.argv[2]), open_end(sys.argv[3], sys.argv[4])]
    random.seed(1)
    waiting = collections.deque()  # (due, end to write to, packet)
    print("ready", flush=True)
    while True:
        timeout = max(0, waiting[0][0] - time.monotonic()) if waiting else None
        for source in select.select(ends, [], [], timeout)[0]:
            packet = os.read(source, 65536)
            if random.random() >= loss:
                waiting.append((time.monotonic() + delay, ends[source == ends[0]], packet))
        while waiting and waiting[0][0] <= time.monotonic():
            _, target, packet = waiting.popleft()
            try:
                os.write(target, packet)
            except OSError:
                pass  # a full queue loses packets, too


main()
