# SPDX-License-Identifier: Apache-2.0
"""passages SIDE=NAMESPACE...

Notes each TCP connection that the gateway begins, where it arrives at a provider: time, side, IP family, source and target. The
addresses are those on the link, before anything is translated.
"""
from __future__ import annotations

import ctypes
import datetime
import ipaddress
import pathlib
import select
import socket
import struct
import sys
from typing import NamedTuple

from orv_testbed.namespaces import enter
from orv_testbed.timestamps import stamp

LINK = "lan"
EVERYTHING, OUTGOING = 0x0003, 4  # ETH_P_ALL, PACKET_OUTGOING
ATTACH_FILTER = 26  # SO_ATTACH_FILTER
# The first packet of a TCP connection (SYN without ACK) behind an IPv4 or an IPv6 header, as a program of the kernel's
# packet filter: what to do, where to go on if true and if false (so many further), with which number.
FIRST_PACKETS = [
    (0x28, 0, 0, 12),  # the kind of packet
    (0x15, 0, 7, 0x0800),
    (0x30, 0, 0, 23),
    (0x15, 0, 12, socket.IPPROTO_TCP),
    (0x28, 0, 0, 20),
    (0x45, 10, 0, 0x1FFF),  # no later fragment
    (0xB1, 0, 0, 14),
    (0x50, 0, 0, 27),  # the flags
    (0x05, 0, 0, 4),
    (0x15, 0, 6, 0x86DD),
    (0x30, 0, 0, 20),
    (0x15, 0, 4, socket.IPPROTO_TCP),
    (0x30, 0, 0, 67),  # the flags
    (0x54, 0, 0, 0x12),
    (0x15, 0, 1, 0x02),
    (0x06, 0, 0, 128),  # so many bytes are passed on
    (0x06, 0, 0, 0),
]


class Passage(NamedTuple):
    time: str
    side: str
    family: str
    source: str
    source_port: int
    target: str
    port: int

    def __str__(self) -> str:
        return " ".join(map(str, self))


def read(text: str) -> list[Passage]:
    lines = [line.split() for line in text.splitlines(keepends=True) if line.endswith("\n")]
    return [
        Passage(time, side, family, source, int(source_port), target, int(port))
        for time, side, family, source, source_port, target, port in lines
    ]


def parse(packet: bytes) -> tuple[str, str, int, str, int]:
    """Family, source and target of a packet that the filter has passed."""
    if packet[12:14] == b"\x08\x00":
        family, addresses, ports = "4", packet[26:34], 14 + 4 * (packet[14] & 15)
    else:
        family, addresses, ports = "6", packet[22:54], 54
    half = len(addresses) // 2
    source, target = (str(ipaddress.ip_address(one)) for one in (addresses[:half], addresses[half:]))
    source_port, port = struct.unpack_from("!HH", packet, ports)
    return family, source, source_port, target, port


def listen(namespace: str) -> socket.socket:
    """At the provider's end of the link. We are in that namespace afterwards."""
    enter(pathlib.Path("/run/netns", namespace))
    link = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
    program = ctypes.create_string_buffer(b"".join(struct.pack("HBBI", *step) for step in FIRST_PACKETS))
    link.setsockopt(socket.SOL_SOCKET, ATTACH_FILTER, struct.pack("HP", len(FIRST_PACKETS), ctypes.addressof(program)))
    link.bind((LINK, EVERYTHING))
    return link


def main(sides: list[str]) -> None:
    links = {listen(namespace): side for side, namespace in (one.split("=") for one in sides)}
    known = set()  # a first packet that is sent again begins no other connection
    while True:
        for link in select.select(list(links), [], [])[0]:
            try:
                packet, (_, _, kind, *_) = link.recvfrom(256)
            except OSError:
                continue  # the link has gone down
            now = stamp(datetime.datetime.now(datetime.timezone.utc))
            seen = (links[link], *parse(packet))
            if kind != OUTGOING and seen not in known:
                known.add(seen)
                print(Passage(now, *seen), flush=True)


if __name__ == "__main__":
    main(sys.argv[1:])
