# SPDX-License-Identifier: Apache-2.0
"""portal CERTIFICATES NAME

A captive portal: sends whoever speaks plain HTTP to https://NAME/, and answers TLS on the cloud's ports with a certificate
of its own, by an authority that the gateway does not know. Writes one line for every connection: when it was taken, port,
peer and what came of it.
"""
from __future__ import annotations

import pathlib
import ssl
import sys
import threading

from orv_testbed.endpoint import Caller, Endpoint, Manner, context
from orv_testbed.timestamps import stamp

PLAIN, SECURE = 80, (443, 8883)


def open_port(port: int, manner: ssl.SSLContext | Manner, name: str) -> None:
    def log(caller: Caller, outcome: str) -> None:
        print(stamp(caller.taken), port, caller, outcome, flush=True)

    reply = f"HTTP/1.1 302 Found\r\nLocation: https://{name}/\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"
    Endpoint("", port, lambda _: manner, log, reply.encode()).start()


def main(certificates: pathlib.Path, name: str) -> None:
    certified = context(certificates / "portal.pem")
    open_port(PLAIN, Manner.PLAIN, name)
    for port in SECURE:
        open_port(port, certified, name)
    threading.Event().wait()


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1]), sys.argv[2])
