#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""cloud_client.py HOST PORT

In place of a product's connection to the cloud: looks HOST up and makes a TLS connection, again and again, bound to
nothing, so that it takes whatever way the gateway offers. Writes a JSON line for every attempt: when it began and ended
(seconds since 1970) and from which address it was made, or null when it failed.
"""
from __future__ import annotations

import json
import socket
import ssl
import sys
import time

HOST, PORT = sys.argv[1], int(sys.argv[2])
LONGEST_STEP = 2.0  # seconds for the connection and for each message of the handshake
PAUSE = 0.5
trust = ssl.create_default_context()


def attempt() -> str | None:
    try:
        address = str(socket.getaddrinfo(HOST, PORT, socket.AF_INET, socket.SOCK_STREAM)[0][4][0])
        with socket.create_connection((address, PORT), LONGEST_STEP) as plain:
            with trust.wrap_socket(plain, server_hostname=HOST) as secure:
                return str(secure.getsockname()[0])
    except OSError:
        return None


while True:
    begin = time.time()
    source = attempt()
    print(json.dumps({"begin": begin, "end": time.time(), "from": source}), flush=True)
    time.sleep(PAUSE)
