# SPDX-License-Identifier: Apache-2.0
"""A port of this machine that nobody uses; as a program it prints one.

Another program may take it before its user does. Where that matters, the port is left to the kernel (port 0), or another one
is tried.
"""
from __future__ import annotations

import socket


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port: int = probe.getsockname()[1]
        return port


if __name__ == "__main__":
    print(free_port())
