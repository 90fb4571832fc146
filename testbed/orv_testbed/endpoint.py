# SPDX-License-Identifier: Apache-2.0
"""The one TLS endpoint: the cloud of the box and of the loopback demo, and the captive portal, are made with it."""
from __future__ import annotations

import dataclasses
import datetime
import enum
import pathlib
import socket
import ssl
import threading
from collections.abc import Callable

PATIENCE = 60  # seconds that a caller may take


class Manner(enum.Enum):
    """How a connection is met that TLS is not spoken on."""

    PLAIN = "plain"
    SILENT = "silent"  # accepts, and says nothing


@dataclasses.dataclass(frozen=True)
class Caller:
    """Who has called, and when the connection was taken."""

    address: str
    port: int
    taken: datetime.datetime

    def __str__(self) -> str:
        return f"[{self.address}]:{self.port}" if ":" in self.address else f"{self.address}:{self.port}"


def context(certificate: pathlib.Path) -> ssl.SSLContext:
    """For a certificate NAME.pem whose key is NAME.key."""
    made = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    made.load_cert_chain(certificate, certificate.with_suffix(".key"))
    return made


class Endpoint:
    """Takes connections, each in a thread of its own, and tells what came of each: plain, silent, handshake or failed.

    (The client's end of a handshake comes first: its last message ends it, and that one has yet to arrive.)
    `manner` says how an address is answered: by TLS with a certificate, or otherwise. `reply` is the answer to whatever is
    asked. Port 0 leaves the choice to the kernel.
    """

    def __init__(
        self,
        address: str,
        port: int,
        manner: Callable[[str], ssl.SSLContext | Manner],
        tell: Callable[[Caller, str], None],
        reply: bytes,
    ) -> None:
        self._manner, self._tell, self._reply = manner, tell, reply
        family = socket.AF_INET6 if ":" in address else socket.AF_INET
        self._listener = socket.create_server((address, port), family=family, backlog=64)
        self.port: int = self._listener.getsockname()[1]

    def start(self) -> None:
        threading.Thread(target=self.run, daemon=True).start()

    def run(self) -> None:
        while True:
            connection, (address, port, *_) = self._listener.accept()
            caller = Caller(address, port, datetime.datetime.now(datetime.timezone.utc))
            threading.Thread(target=self._serve, args=(connection, caller), daemon=True).start()

    def _serve(self, connection: socket.socket, caller: Caller) -> None:
        connection.settimeout(PATIENCE)
        try:
            manner = self._manner(caller.address)
            if manner is Manner.SILENT:
                self._tell(caller, manner.value)
                while connection.recv(4096):
                    pass
            elif manner is Manner.PLAIN:
                self._tell(caller, manner.value)
                self._answer(connection)
            elif isinstance(manner, ssl.SSLContext):
                with manner.wrap_socket(connection, server_side=True) as tls:
                    self._tell(caller, "handshake")
                    self._answer(tls)
        except OSError as error:
            self._tell(caller, f"failed: {error}")
        finally:
            connection.close()

    def _answer(self, connection: socket.socket) -> None:
        if connection.recv(4096):
            connection.sendall(self._reply)
