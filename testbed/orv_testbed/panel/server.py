# SPDX-License-Identifier: Apache-2.0
"""Serves the page on 127.0.0.1, and to each page what happens, as server-sent events."""
from __future__ import annotations

import hmac
import http.server
import json
import pathlib
import secrets
import socket
import threading
from collections.abc import Callable
from http import HTTPStatus
from typing import Any

from orv_testbed.panel.hub import Hub, Seen

ADDRESS = "127.0.0.1"
PAGE = pathlib.Path(__file__).with_name("page")
KINDS = {".html": "text/html", ".css": "text/css", ".js": "text/javascript", ".svg": "image/svg+xml"}
POLICY = (
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'; require-trusted-types-for 'script'; trusted-types 'none'"
)
HEARTBEAT = 2.0  # seconds; a page that hears nothing for longer connects anew
PACE = 0.1  # seconds between two messages to a page, however much happens
PATIENCE = 20.0  # seconds that a page may take to read or to ask
LONGEST_BODY = 1000  # bytes
MOST_PAGES = 30

Press = Callable[[str], str]  # a fault's name -> what is wrong with it, or nothing


class Server(http.server.ThreadingHTTPServer):
    """`press` is what a fault's button does; without it the page only shows."""

    daemon_threads = True
    allow_reuse_address = True
    request_queue_size = 64

    def __init__(self, hub: Hub, port: int, press: Press | None = None) -> None:
        self.hub = hub
        self.press = press
        self.token = secrets.token_urlsafe(24)
        self.pages = threading.BoundedSemaphore(MOST_PAGES)
        self.files = {f"/{path.name}": (KINDS[path.suffix], path.read_bytes()) for path in PAGE.glob("*.*")}
        self.files["/"] = self.files["/index.html"]
        super().__init__((ADDRESS, port), Handler)
        hub.put("server", {"run": secrets.token_hex(8), "token": self.token if press else None})

    @property
    def port(self) -> int:
        return int(self.server_address[1])

    @property
    def url(self) -> str:
        return f"http://{ADDRESS}:{self.port}/"

    def start(self) -> None:
        threading.Thread(target=self.serve_forever, kwargs={"poll_interval": 0.1}, daemon=True).start()

    def stop(self) -> None:
        self.hub.close()
        self.shutdown()
        self.server_close()

    def handle_error(self, request: Any, client_address: Any) -> None:
        """A page that goes away is none."""


class Handler(http.server.BaseHTTPRequestHandler):
    server: Server
    protocol_version = "HTTP/1.1"
    timeout = PATIENCE
    server_version = "orv-panel"
    sys_version = ""

    def log_message(self, *_: Any) -> None:
        """Nobody reads it."""

    def do_GET(self) -> None:
        if not self._is_ours():
            return
        if self.path == "/events":
            self._stream()
        elif self.path in self.server.files:
            kind, content = self.server.files[self.path]
            self._answer(HTTPStatus.OK, kind, content)
        else:
            self._refuse(HTTPStatus.NOT_FOUND, "there is no such page")

    def do_POST(self) -> None:
        if not self._is_ours(must_have_origin=True):
            return
        press = self.server.press
        if self.path != "/faults" or press is None:
            self._refuse(HTTPStatus.NOT_FOUND, "this panel only shows" if press is None else "there is no such page")
            return
        if not hmac.compare_digest(self.headers.get("X-Panel-Token", "").encode(), self.server.token.encode()):
            self._refuse(HTTPStatus.FORBIDDEN, "only the panel's own page may do that")
            return
        name = self._asked_fault()
        if name is None:
            self._refuse(HTTPStatus.BAD_REQUEST, "no fault is named")
            return
        trouble = press(name)
        if trouble:
            self._refuse(HTTPStatus.CONFLICT, trouble)
        else:
            self._answer(HTTPStatus.OK, "text/plain", b"done\n")

    def _asked_fault(self) -> str | None:
        length = self.headers.get("Content-Length", "")
        if not length.isascii() or not length.isdigit() or int(length) > LONGEST_BODY:
            return None
        try:
            asked = json.loads(self.rfile.read(int(length)))
        except (ValueError, RecursionError):
            return None
        name = asked.get("fault") if isinstance(asked, dict) else None
        return name if isinstance(name, str) else None

    def _is_ours(self, must_have_origin: bool = False) -> bool:
        """Whether the page asks that we have served: a name that leads here by design or by deceit is not its address."""
        hosts = [f"{name}:{self.server.port}" for name in (ADDRESS, "localhost")]
        host, origin = self.headers.get("Host", ""), self.headers.get("Origin")
        right = (
            host in hosts
            and len(self.headers.get_all("Host", [])) == 1
            and (origin == f"http://{host}" or (origin is None and not must_have_origin))
            # A link on another site may lead to the page itself.
            and (self.path == "/" or self.headers.get("Sec-Fetch-Site", "none") in ("none", "same-origin"))
        )
        if not right:
            self._refuse(HTTPStatus.FORBIDDEN, f"the panel is only reached as {self.server.url}")
        return right

    def _refuse(self, status: HTTPStatus, words: str) -> None:
        self.close_connection = True  # an unread body would be taken for the next request
        self._answer(status, "text/plain", words.encode() + b"\n")

    def send_error(self, code: int, message: str | None = None, explain: str | None = None) -> None:
        self._refuse(HTTPStatus(code), HTTPStatus(code).phrase)

    def _answer(self, status: HTTPStatus, kind: str, content: bytes) -> None:
        self._head(status, kind)
        self.send_header("Content-Length", str(len(content)))
        if self.close_connection:
            self.send_header("Connection", "close")
        self.end_headers()
        self.wfile.write(content)

    def _head(self, status: HTTPStatus, kind: str) -> None:
        self.send_response(status)
        self.send_header("Content-Type", f"{kind}; charset=utf-8")
        self.send_header("Content-Security-Policy", POLICY)
        self.send_header("X-Content-Type-Options", "nosniff")
        self.send_header("Referrer-Policy", "no-referrer")
        self.send_header("Cross-Origin-Opener-Policy", "same-origin")
        self.send_header("Cross-Origin-Resource-Policy", "same-origin")
        self.send_header("Cache-Control", "no-store")

    def _stream(self) -> None:
        """First everything, then what is newer, until the page goes or does not read."""
        if not self.server.pages.acquire(blocking=False):
            self._refuse(HTTPStatus.SERVICE_UNAVAILABLE, f"{MOST_PAGES} pages are open already")
            return
        try:
            self.close_connection = True
            # What a page has not read yet is to wait here, where it is replaced by what is newer.
            self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 16)
            self._head(HTTPStatus.OK, "text/event-stream")
            self.end_headers()
            self.wfile.write(b"retry: 1000\n\n")
            seen, hub = Seen(), self.server.hub
            while not hub.over.is_set():
                message = hub.newer(seen, HEARTBEAT)
                self.wfile.write(b"data: " + json.dumps(message, separators=(",", ":")).encode() + b"\n\n")
                hub.over.wait(PACE)
        finally:
            self.server.pages.release()
