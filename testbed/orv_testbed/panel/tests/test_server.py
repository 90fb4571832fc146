# SPDX-License-Identifier: Apache-2.0
"""The panel's server as browsers and others meet it, on loopback."""
from __future__ import annotations

import contextlib
import http.client
import json
import socket
from collections.abc import Iterator
from typing import Any

import pytest

from orv_testbed.panel.hub import Hub
from orv_testbed.panel.server import HEARTBEAT, MOST_PAGES, Server
from orv_testbed.panel.tests.samples import as_read
from orv_testbed.waiting import SLACK, wait_until


class Served:
    """A server, the faults that were pressed on it, and how to talk to it."""

    def __init__(self, with_faults: bool) -> None:
        self.hub = Hub()
        self.pressed: list[str] = []
        self.server = Server(self.hub, 0, self.press if with_faults else None)
        self.server.start()

    def press(self, name: str) -> str:
        self.pressed.append(name)
        return "the cable is stuck" if name == "cable stuck" else ""

    @property
    def host(self) -> str:
        return f"127.0.0.1:{self.server.port}"

    def request(self, method: str, path: str, body: str | None = None, **headers: str) -> http.client.HTTPResponse:
        connection = http.client.HTTPConnection("127.0.0.1", self.server.port, timeout=SLACK)
        connection.request(method, path, body, {name.replace("_", "-"): value for name, value in headers.items()})
        return connection.getresponse()

    def fault(self, name: str, **headers: str) -> int:
        ours = {"Origin": f"http://{self.host}", "X_Panel_Token": self.server.token}
        return self.request("POST", "/faults", json.dumps({"fault": name}), **{**ours, **headers}).status


class Page:
    """What a page's EventSource hears."""

    def __init__(self, served: Served) -> None:
        self.answer = served.request("GET", "/events", Origin=f"http://{served.host}")
        assert self.answer.status == 200

    def next(self) -> dict[str, Any]:
        while True:
            line = self.answer.readline()
            assert line, "the stream has ended"
            if line.startswith(b"data: "):
                message: dict[str, Any] = json.loads(line[6:])
                return message

    def until(self, section: str) -> Any:
        while True:
            message = self.next()
            if section in message:
                return message[section]


@pytest.fixture
def served() -> Iterator[Served]:
    made = Served(with_faults=True)
    yield made
    made.server.stop()


@pytest.fixture
def read_only() -> Iterator[Served]:
    made = Served(with_faults=False)
    yield made
    made.server.stop()


def test_it_listens_on_loopback_alone(served: Served) -> None:
    assert served.server.server_address[0] == "127.0.0.1"


@pytest.mark.parametrize("path", ["/", "/panel.js", "/panel.css", "/timeline.js", "/icon.svg"])
def test_the_page_may_load_and_reach_nothing_but_its_server(served: Served, path: str) -> None:
    answer = served.request("GET", path)
    policy = answer.headers["Content-Security-Policy"]
    assert answer.status == 200 and answer.read()
    assert policy.startswith("default-src 'none';") and "unsafe" not in policy and "http" not in policy
    assert answer.headers["X-Content-Type-Options"] == "nosniff"


@pytest.mark.parametrize("path", ["/../server.py", "/%2e%2e/server.py", "//etc/passwd", "/page/panel.js", "/faults"])
def test_nothing_else_is_served(served: Served, path: str) -> None:
    assert served.request("GET", path).status == 404


@pytest.mark.parametrize("path", ["/", "/events", "/panel.js"])
@pytest.mark.parametrize("host", ["evil.example", "evil.example:80", "127.0.0.1", "127.0.0.1:1", "[::1]:80", ""])
def test_a_name_that_only_leads_here_is_refused(served: Served, path: str, host: str) -> None:
    assert served.request("GET", path, Host=host).status == 403


@pytest.mark.parametrize("origin", ["http://evil.example", "null", "http://127.0.0.1:1", "https://127.0.0.1", ""])
def test_a_foreign_page_hears_nothing_and_does_nothing(served: Served, origin: str) -> None:
    assert served.request("GET", "/events", Origin=origin).status == 403
    assert served.fault("cable out", Origin=origin) == 403
    assert served.pressed == []


def test_what_another_site_embeds_is_refused_and_its_link_to_the_panel_is_not(served: Served) -> None:
    assert served.request("GET", "/events", Sec_Fetch_Site="cross-site").status == 403
    assert served.request("GET", "/panel.js", Sec_Fetch_Site="same-site").status == 403
    assert served.request("GET", "/", Sec_Fetch_Site="cross-site").status == 200


@pytest.mark.parametrize("token", ["", "x", "é"])
def test_a_fault_needs_the_token_of_the_page(served: Served, token: str) -> None:
    assert served.fault("cable out", X_Panel_Token=token.encode().decode("latin-1")) == 403
    assert served.pressed == []


def test_a_fault_needs_an_origin(served: Served) -> None:
    body = json.dumps({"fault": "cable out"})
    assert served.request("POST", "/faults", body, X_Panel_Token=served.server.token).status == 403
    assert served.pressed == []


def test_a_page_gets_the_token_and_presses_a_fault_with_it(served: Served) -> None:
    token = Page(served).until("server")["token"]
    assert served.fault("cable out", X_Panel_Token=token) == 200
    assert served.pressed == ["cable out"]


def test_what_is_wrong_with_a_fault_is_said(served: Served) -> None:
    headers = {"Origin": f"http://{served.host}", "X_Panel_Token": served.server.token}
    answer = served.request("POST", "/faults", json.dumps({"fault": "cable stuck"}), **headers)
    assert (answer.status, answer.read()) == (409, b"the cable is stuck\n")


@pytest.mark.parametrize("body", ["", "{", "[]", "3", '{"fault": 3}', "[" * 900, "x" * 2000])
def test_a_body_that_names_no_fault_is_refused(served: Served, body: str) -> None:
    headers = {"Origin": f"http://{served.host}", "X_Panel_Token": served.server.token}
    assert served.request("POST", "/faults", body, **headers).status == 400
    assert served.pressed == []


def test_a_panel_that_only_shows_has_neither_token_nor_faults(read_only: Served) -> None:
    assert Page(read_only).until("server")["token"] is None
    for token in ("None", "", read_only.server.token):
        assert read_only.fault("cable out", X_Panel_Token=token) == 404


@pytest.mark.parametrize("method", ["PUT", "DELETE", "OPTIONS", "TRACE", "PATCH"])
def test_other_methods_are_refused(served: Served, method: str) -> None:
    assert served.request(method, "/faults").status == 501


def test_several_pages_hear_the_same(served: Served) -> None:
    pages = [Page(served) for _ in range(5)]
    served.hub.take(as_read(leds__green="blink"))
    assert [page.until("status")["leds"]["green"] for page in pages] == ["blink"] * 5


def test_a_page_hears_something_now_and_then_even_if_nothing_happens(served: Served) -> None:
    page = Page(served)
    page.next()
    assert set(page.next()) == {"now"}


def test_a_page_that_does_not_read_holds_up_nobody(served: Served) -> None:
    big = [{"topic": f"/orv/{n}", "payload": "x" * 500, "bytes": 500, "retained": False} for n in range(500)]
    with contextlib.closing(socket.socket()) as stuck:
        stuck.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        stuck.connect(("127.0.0.1", served.server.port))
        stuck.sendall(f"GET /events HTTP/1.1\r\nHost: {served.host}\r\n\r\n".encode())
        page = Page(served)
        for number in range(20):
            served.hub.take(as_read(monotonic=1000.0 + number, topics=big))
            wait_until(lambda: page.until("status")["monotonic"] == 1000.0 + number, SLACK, "a page that reads")


def test_there_is_an_end_to_the_pages_and_one_that_goes_makes_room(served: Served) -> None:
    pages = [Page(served) for _ in range(MOST_PAGES)]
    assert served.request("GET", "/events").status == 503
    assert served.request("GET", "/").status == 200
    pages.pop().answer.close()
    wait_until(
        lambda: served.request("GET", "/events").status == 200, HEARTBEAT * 3 + SLACK, "room for a page", pause=0.3
    )
