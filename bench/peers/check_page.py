#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""check_page.py ADDRESS ETHERNET-PREFIX CELLULAR-PREFIX

The page that NetworkManager and ConnMan ask for to see whether they are online. Writes when it was asked for, and over
which side. It is empty: both look at the header, and ConnMan 1.41 takes no answer with a text.
"""
from __future__ import annotations

import http.server
import sys
import time

address, eth_prefix, cell_prefix = sys.argv[1:4]


class Page(http.server.BaseHTTPRequestHandler):
    def do_GET(self) -> None:  # noqa: N802
        peer = self.client_address[0]
        side = "eth" if peer.startswith(eth_prefix) else "cell" if peer.startswith(cell_prefix) else "other"
        print(f"{time.time():.3f} {side}", flush=True)
        self.send_response(200)
        self.send_header("X-NetworkManager-Status", "online")
        self.send_header("X-ConnMan-Status", "online")
        self.send_header("Content-Length", "0")
        self.send_header("Connection", "close")
        self.end_headers()

    def log_message(self, *_: object) -> None:
        pass


http.server.ThreadingHTTPServer((address, 80), Page).serve_forever()
