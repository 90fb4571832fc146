# SPDX-License-Identifier: Apache-2.0
"""slow_line DEVICE MILLISECONDS

Makes a network device. What is routed to it comes out of it again so many milliseconds later, in its order. Says "at work"
when it is there; the device goes with the program.
"""
from __future__ import annotations

import collections
import fcntl
import os
import select
import struct
import subprocess
import sys
import time

SET_INTERFACE, TUN, NO_HEADER = 0x400454CA, 0x0001, 0x1000  # see the kernel's if_tun.h
LONGEST_PACKET = 65536
ROOM = 2000  # packets


def main(name: str, delay: float) -> None:
    device = os.open("/dev/net/tun", os.O_RDWR)
    fcntl.ioctl(device, SET_INTERFACE, struct.pack("16sH22x", name.encode(), TUN | NO_HEADER))
    subprocess.run(["ip", "link", "set", "dev", name, "up"], check=True)
    print("at work", flush=True)
    waiting: collections.deque[tuple[float, bytes]] = collections.deque()
    while True:
        pause = max(0.0, waiting[0][0] - time.monotonic()) if waiting else None
        if select.select([device], [], [], pause)[0]:
            packet = os.read(device, LONGEST_PACKET)
            if len(waiting) < ROOM:
                waiting.append((time.monotonic() + delay, packet))
        while waiting and waiting[0][0] <= time.monotonic():
            os.write(device, waiting.popleft()[1])


if __name__ == "__main__":
    main(sys.argv[1], int(sys.argv[2]) / 1000)
