# SPDX-License-Identifier: Apache-2.0
"""cloud_https FOLDER ADDRESS...

The cloud's HTTPS endpoint. Writes one line for every connection: when it was taken, side, peer and what came of it, so that
a test can tell from the cloud's side whether a TLS handshake took place. How it answers each side stands in
FOLDER/answer-eth and FOLDER/answer-cell: ok, silent (accepts and says nothing) or wrong-certificate.
"""
from __future__ import annotations

import pathlib
import ssl
import sys
import threading

from orv_testbed.endpoint import Caller, Endpoint, Manner, context
from orv_testbed.layout import SIDES
from orv_testbed.timestamps import stamp

PORT = 443
REPLY = b"HTTP/1.1 200 OK\r\nContent-Length: 3\r\nConnection: close\r\n\r\nok\n"


def main(folder: pathlib.Path, *addresses: str) -> None:
    right, wrong = context(folder / "tls/server.pem"), context(folder / "tls/wrong.pem")
    answers: dict[str, ssl.SSLContext | Manner] = {"ok": right, "wrong-certificate": wrong, "silent": Manner.SILENT}

    def side(peer: str) -> str:
        return next((one.name for one in SIDES.values() if one.family_of(peer)), "other")

    def manner(peer: str) -> ssl.SSLContext | Manner:
        if side(peer) == "other":
            return right
        return answers[(folder / f"answer-{side(peer)}").read_text(encoding="ascii").strip()]

    def log(caller: Caller, outcome: str) -> None:
        print(stamp(caller.taken), side(caller.address), caller, outcome, flush=True)

    for address in addresses:
        Endpoint(address, PORT, manner, log, REPLY).start()
    threading.Event().wait()


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1]), *sys.argv[2:])
