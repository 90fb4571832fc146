# SPDX-License-Identifier: Apache-2.0
"""distant FOLDER

A TLS endpoint on 127.0.0.1 that is as far away as over a WAN: what is said arrives 20 ms later. On loopback a peer may answer
before the caller has looked, and two steps of a handshake fall into one. Prints its port and runs until it is ended; FOLDER
gets its certificate, distant.pem, which is its own authority.
"""
from __future__ import annotations

import asyncio
import pathlib
import sys

from orv_testbed.certificates import Authority
from orv_testbed.endpoint import Endpoint, context

HERE = "127.0.0.1"
DELAY = 0.02  # seconds


async def pass_on(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
    while data := await reader.read(65536):
        await asyncio.sleep(DELAY)
        writer.write(data)
    writer.close()


async def relay(target: int) -> None:
    async def accepted(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        far_reader, far_writer = await asyncio.open_connection(HERE, target)
        await asyncio.gather(pass_on(reader, far_writer), pass_on(far_reader, writer))

    async with await asyncio.start_server(accepted, HERE, 0) as server:
        print(server.sockets[0].getsockname()[1], flush=True)
        await server.serve_forever()


def main(folder: pathlib.Path) -> None:
    certificate = Authority(folder, "distant", HERE, f"IP:{HERE}").certificate
    tls = context(certificate)
    endpoint = Endpoint(HERE, 0, lambda _: tls, lambda *_: None, b"")
    endpoint.start()
    asyncio.run(relay(endpoint.port))


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1]))
