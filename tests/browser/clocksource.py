"""Raw pictures (yuv420p, 640x360, 25 a second) with the time burnt in: 32 bars, the bits of the clock's milliseconds."""

import os
import sys
import time

WIDTH, HEIGHT, BAR = 640, 360, 40


def main():
    noise = bytes(60 + b % 130 for b in os.urandom(WIDTH * 4)) * (HEIGHT + 8)
    colour = bytes([128]) * (WIDTH * HEIGHT // 2)
    begun, count = time.time(), 0
    while True:
        time.sleep(max(0, begun + count / 25 - time.time()))
        clock = int(time.time() * 1000) & 0xFFFFFFFF
        bars = b"".join((b"\xeb" if clock >> bit & 1 else b"\x10") * (WIDTH // 32) for bit in range(32))
        at = count * 3 % WIDTH
        sys.stdout.buffer.write(bars * BAR + noise[at:at + WIDTH * (HEIGHT - BAR)] + colour)
        sys.stdout.buffer.flush()
        count += 1


if __name__ == "__main__":
    try:
        main()
    except BrokenPipeError:
        os._exit(0)
