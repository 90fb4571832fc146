# SPDX-License-Identifier: Apache-2.0
"""Namespaces, and what the kernel tells of one, without the programs for it."""
from __future__ import annotations

import ctypes
import functools
import os
import pathlib
import socket
import struct
from typing import Any

NETLINK_SOCK_DIAG, SOCK_DIAG_BY_FAMILY, ASK_FOR_ALL, DONE, ERROR = 4, 20, 0x301, 3, 2
LISTENING = 1 << 10  # of TCP's states
DROP_FROM_BOUNDING_SET = 24
CAPABILITY_VERSION = 0x20080522
HEAD = struct.Struct("=IHHII")  # length, type, flags, sequence, port


@functools.cache
def libc() -> ctypes.CDLL:
    return ctypes.CDLL(None, use_errno=True)


def enter(namespace: pathlib.Path) -> None:
    """The calling thread is in the network, or another namespace, that is held there."""
    handle = os.open(namespace, os.O_RDONLY)
    try:
        if libc().setns(handle, 0) != 0:
            raise OSError(ctypes.get_errno(), f"setns {namespace}")
    finally:
        os.close(handle)


def enter_all(entry: dict[str, Any]) -> None:
    """`network`: a network's file. `holder`: a process whose network, host name, mounts and root they are, `directory` a folder
    there, `without` the numbers of the capabilities that nobody may have there."""
    if "network" in entry:
        enter(pathlib.Path(entry["network"]))
    if "holder" not in entry:
        return
    holder = pathlib.Path("/proc", str(entry["holder"]))
    root = os.open(holder / "root", os.O_RDONLY)
    handles = [os.open(holder / "ns" / kind, os.O_RDONLY) for kind in ("net", "uts", "mnt")]
    for handle in handles:
        if libc().setns(handle, 0) != 0:
            raise OSError(ctypes.get_errno(), f"setns {holder}")
        os.close(handle)
    os.fchdir(root)
    os.close(root)
    os.chroot(".")
    os.chdir(entry["directory"])
    give_up(entry["without"])


def give_up(capabilities: list[int]) -> None:
    """The process has them no more, nor may it get them again."""
    header, sets = struct.pack("=Ii", CAPABILITY_VERSION, 0), ctypes.create_string_buffer(24)
    failed = libc().capget(header, sets) != 0
    words = list(struct.unpack("=6I", sets.raw))  # effective, permitted, inheritable, twice 32 of each
    for capability in capabilities:
        failed = failed or libc().prctl(DROP_FROM_BOUNDING_SET, capability, 0, 0, 0) != 0
        for kind in range(3):
            words[3 * (capability // 32) + kind] &= ~(1 << capability % 32)
    if failed or libc().capset(header, struct.pack("=6I", *words)) != 0:
        raise OSError(ctypes.get_errno(), "the capabilities cannot be given up")


def listening_ports() -> set[int]:
    """On which connections are taken over TCP, in the network of the calling thread. (/proc/net/tcp has them, too, but the
    kernel looks through all connections of the computer for it.)"""
    ports = set()
    for family in (socket.AF_INET, socket.AF_INET6):
        request = struct.pack("=BBBxI48x", family, socket.IPPROTO_TCP, 0, LISTENING)
        with socket.socket(socket.AF_NETLINK, socket.SOCK_DGRAM, NETLINK_SOCK_DIAG) as kernel:
            kernel.send(HEAD.pack(HEAD.size + len(request), SOCK_DIAG_BY_FAMILY, ASK_FOR_ALL, 0, 0) + request)
            kind = 0
            while kind not in (DONE, ERROR):
                answer = kernel.recv(1 << 16)
                while answer and kind not in (DONE, ERROR):
                    length, kind, *_ = HEAD.unpack_from(answer)
                    if kind == SOCK_DIAG_BY_FAMILY:
                        ports.add(struct.unpack_from("!H", answer, HEAD.size + 4)[0])
                    answer = answer[(length + 3) & ~3 :]
    return ports
