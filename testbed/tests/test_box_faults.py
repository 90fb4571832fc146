# SPDX-License-Identifier: Apache-2.0
"""The box's faults are what they are called, and are gone when they are taken back."""
from __future__ import annotations

import contextlib
import pathlib
import re
import subprocess
import time
from collections.abc import Callable

import pytest

from orv_testbed.box import Box
from orv_testbed.scene import PORTAL, Scene
from orv_testbed.waiting import SLACK, comes_within, wait_until

CLOUD = "https://cloud.box.test/"
SIDES = [("eth", "eth0"), ("cell", "wwan0")]
on_each_side = pytest.mark.parametrize("side, interface", SIDES)

# Asks a name server 300 times without waiting, and counts the answers.
ASK_300_TIMES = """
import socket, sys, time
asking = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
asking.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
asking.connect((sys.argv[1], 53))
for number in range(300):
    asking.send(number.to_bytes(2, "big") + bytes.fromhex("01000001000000000000") + b"\\5cloud\\3box\\4test\\0\\0\\1\\0\\1")
    time.sleep(0.001)
asking.settimeout(2)
answers = 0
try:
    while asking.recv(512):
        answers += 1
except OSError:
    print(answers)
"""
SEND_20_KB = """
import socket, sys
socket.create_connection((sys.argv[2], 4000), source_address=(sys.argv[1], 0)).sendall(bytes(20000))
"""
SWALLOW = """
import socket
taken, _ = socket.create_server(("", 4000)).accept()
while taken.recv(4096): pass
"""


def fetch(box: Box, interface: str, url: str = CLOUD, seconds: str = "10") -> tuple[int, str]:
    """Fetches a page through an interface; returns (curl's exit status, body)."""
    done = subprocess.run(
        box.command(
            "exec", "curl", "--silent", "--show-error", "--max-time", seconds, "--interface", f"if!{interface}", url
        ),
        env=box.environment,
        text=True,
        capture_output=True,
        check=False,
    )
    return done.returncode, done.stdout


def addresses_of(box: Box, name: str) -> set[str]:
    done = box("exec", "getent", "ahostsv4", name, must_succeed=False)
    return {line.split()[0] for line in done.splitlines()}


def address_of(box: Box, interface: str) -> str | None:
    words = box(
        "exec", "ip", "-4", "-o", "address", "show", "dev", interface, "scope", "global", must_succeed=False
    ).split()
    return words[words.index("inet") + 1] if "inet" in words else None


def carries(box: Box, interface: str) -> Callable[[], bool]:
    return lambda: fetch(box, interface) == (0, "ok\n")


def begun(box: Box, side: str) -> int:
    return sum(one.side == side for one in box.passages())


def queries(box: Box, side: str) -> int:
    return box("log", f"names-{side}").count("query[A] cloud.box.test")


def test_a_command_on_the_gateway_begins_in_the_gateways_folder(box: Box) -> None:
    def run(folder: str, *words: str) -> str:
        return subprocess.run(
            box.command("exec", *words), env=box.environment, cwd=folder, text=True, capture_output=True, check=True
        ).stdout

    assert "cloud.box.test" in run("/etc", "cat", "orv/gateway.ini")
    assert run("/run/netns", "pwd") == "/\n"  # the gateway has no such folder


@pytest.mark.parametrize("side, server", [("eth", "10.21.0.53"), ("cell", "10.22.0.53")])
def test_loss_takes_its_share_in_either_direction(box: Box, side: str, server: str) -> None:
    def ask() -> tuple[int, int]:
        before = queries(box, side)
        answered = int(box("exec", "/usr/bin/python3", "-c", ASK_300_TIMES, server))
        return queries(box, side) - before, answered

    assert ask() == (300, 300)
    box("loss", side, "50")
    arrived, answered = ask()
    assert 75 < arrived < 225
    assert arrived / 4 < answered < arrived * 3 / 4
    box("loss", side, "off")
    assert ask() == (300, 300)


def test_a_loss_is_a_whole_number_of_per_cent(box: Box) -> None:
    for wrong in ("100", "0", "-1", "08", "2.5", "", "all"):
        with pytest.raises(AssertionError, match="loss: use loss eth|cell PERCENT|off"):
            box("loss", "eth", wrong)


@on_each_side
def test_a_narrow_provider_takes_its_time(box: Box, side: str, interface: str) -> None:
    name = box.environment["ORV_BOX"]
    address = address_of(box, interface)
    assert address
    gateway, cloud = (f"{name}-gw", address.split("/")[0]), (f"{name}-cloud", "198.51.100.10")

    def seconds(source: tuple[str, str], target: tuple[str, str]) -> float:
        taking = subprocess.Popen(["ip", "netns", "exec", target[0], "/usr/bin/python3", "-c", SWALLOW])
        wait_until(
            lambda: subprocess.run(
                ["ip", "netns", "exec", target[0], "ss", "-Hltn", "sport = :4000"], check=True, capture_output=True
            ).stdout,
            SLACK,
            "someone who takes it",
        )
        begun = time.monotonic()
        subprocess.run(
            ["ip", "netns", "exec", source[0], "/usr/bin/python3", "-c", SEND_20_KB, source[1], target[1]],
            check=True,
            timeout=60,
        )
        taking.wait(60)
        return time.monotonic() - begun

    box("exec", "ip", "route", "replace", "198.51.100.10", "via", "10.11.0.1" if side == "eth" else "10.12.0.1")
    box("bandwidth", side, "100")
    least = (20000 - 4096 - 1500) * 8 / 100e3  # what the shaper lets through at once comes off
    assert seconds(gateway, cloud) > least
    assert seconds(cloud, gateway) > least
    box("bandwidth", side, "off")
    for device in ("lan", "up"):
        assert (
            "tbf"
            not in subprocess.run(
                ["tc", "-n", f"{box.environment['ORV_BOX']}-{side}", "qdisc", "show", "dev", device],
                check=True,
                capture_output=True,
                text=True,
            ).stdout
        )


@on_each_side
def test_a_name_server_lies_about_every_name(box: Box, side: str, interface: str) -> None:
    box("names", "cell" if side == "eth" else "eth", "mute")
    box("names", side, "lie", "192.0.2.7")
    for name in ("cloud.box.test", "somewhere.else.example", interface):
        assert addresses_of(box, name) == {"192.0.2.7"}
    box("names", side, "back")
    assert addresses_of(box, "cloud.box.test") == {"198.51.100.10"}
    assert addresses_of(box, interface) == set()


def test_a_name_server_lies_about_one_name(box: Box) -> None:
    box("names", "eth", "lie", "0.0.0.0", "eth0")
    assert addresses_of(box, "eth0") == {"0.0.0.0"}
    assert addresses_of(box, "cloud.box.test") == {"198.51.100.10"}
    box("names", "cell", "mute")
    box("names", "eth", "lie", "192.0.2.7", "cloud.box.test")
    assert addresses_of(box, "eth0") == set()
    assert addresses_of(box, "cloud.box.test") == {"192.0.2.7"}
    box("names", "eth", "back")
    assert addresses_of(box, "cloud.box.test") == {"198.51.100.10"}


@on_each_side
def test_a_dead_address_is_dead_only_while_it_is_told(box: Box, side: str, interface: str) -> None:
    def filters() -> str:
        namespace = f"{box.environment['ORV_BOX']}-{side}"
        command = ["ip", "netns", "exec", namespace, "nft", "list", "ruleset"]
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout

    box("names", "cell" if side == "eth" else "eth", "mute")
    box("names", side, "first", "198.51.100.66")
    assert addresses_of(box, "cloud.box.test") == {"198.51.100.66", "198.51.100.10"}
    assert "198.51.100.66" in filters()
    box("names", side, "back")
    assert addresses_of(box, "cloud.box.test") == {"198.51.100.10"}
    assert filters() == ""
    assert fetch(box, interface) == (0, "ok\n")


@on_each_side
def test_a_captive_portal_answers_for_the_cloud(box: Box, side: str, interface: str) -> None:
    not_certified = 60
    box("portal", side, "on")
    assert fetch(box, interface)[0] == not_certified
    assert fetch(box, interface, "https://cloud.box.test:8883/")[0] == not_certified
    assert "Location: https://portal.box.test/" in box(
        "exec", "curl", "-sSI", "--interface", interface, "http://cloud.box.test/"
    )
    assert [line.split()[1] for line in box("log", f"portal-{side}").splitlines()] == ["443", "8883", "80"]
    assert box.handshakes(side) == []
    assert fetch(box, "wwan0" if side == "eth" else "eth0") == (0, "ok\n")
    box("portal", side, "off")
    assert fetch(box, interface) == (0, "ok\n")


def test_a_captive_portal_ends_what_is_connected(scene: Scene) -> None:
    scene.expected_complaints = PORTAL
    scene.box("portal", "eth", "on")
    scene.application.wait_for("eth cloud lost, start delay to cell", 10)
    scene.box("portal", "eth", "off")
    scene.settles("eth0", 30)


def test_the_end_of_a_lease_leaves_the_link(box: Box) -> None:
    box("lease", "eth", "end")
    assert address_of(box, "eth0") is None
    assert box.default_interfaces() == []
    assert "LOWER_UP" in box("exec", "ip", "link", "show", "eth0")
    box("lease", "eth", "back")
    wait_until(lambda: box.default_interfaces() == ["eth0"], SLACK, "Ethernet's default route")
    wait_until(carries(box, "eth0"), SLACK, "the cloud over Ethernet")
    assert box.order() == ["eth0", "wwan0"]


def test_a_modem_that_is_reset_comes_back_with_another_address(box: Box) -> None:
    assert address_of(box, "wwan0") == "10.12.0.50/24"
    box("cellular", "gone")
    assert "wwan0" not in box("exec", "ip", "link")
    wait_until(lambda: box.order() == ["eth0"], SLACK, "no service of the modem's")
    for address in ("10.12.0.51/24", "10.12.0.52/24"):
        box("cellular", "reset")
        wait_until(
            lambda: address_of(box, "wwan0") == address, SLACK, f"{address} on wwan0"
        )  # pylint: disable=cell-var-from-loop
        wait_until(carries(box, "wwan0"), SLACK, "the cloud over Cellular")
    assert [line.split()[2] for line in box("services").splitlines()] == ["ethernet", "cellular"]
    # A restarted connection manager finds it as it is.
    box("connman", "stop")
    box("connman", "start")
    wait_until(lambda: address_of(box, "wwan0") == "10.12.0.52/24", SLACK, "10.12.0.52 on wwan0")


def test_a_full_var_tmp_empties_what_is_written(box: Box) -> None:
    write = "cd /var/tmp; cat kept; echo new >kept; echo new >another; rm removed; :"
    box("exec", "sh", "-c", "cd /var/tmp && echo old >kept && echo old >removed")
    box("var-tmp", "full")
    assert box("exec", "sh", "-c", write) == "old\n"
    for _ in range(2):
        assert [box.file(f"/var/tmp/{name}") for name in ("kept", "another", "removed")] == ["", "", None]
        box("var-tmp", "ok")
    box("exec", "sh", "-c", write)
    assert box.file("/var/tmp/kept") == "new\n"


def test_a_read_only_var_tmp_stays_as_it_is(box: Box) -> None:
    box("exec", "sh", "-c", "cd /var/tmp && echo old >kept")
    box("var-tmp", "full")
    box("var-tmp", "read-only")
    box("exec", "sh", "-c", "cd /var/tmp; echo new >kept; echo new >another; :")
    assert [box.file(f"/var/tmp/{name}") for name in ("kept", "another")] == ["old\n", None]
    box("var-tmp", "ok")
    box("exec", "sh", "-c", "cd /var/tmp; echo new >kept")
    assert box.file("/var/tmp/kept") == "new\n"


@pytest.mark.parametrize("kind, known, folder", [("one", 1, True), ("full", 100, True), ("bundle", 100, False)])
def test_the_cloud_is_trusted_among_few_authorities_and_many(box: Box, kind: str, known: int, folder: bool) -> None:
    connect = (
        "import socket, ssl; trust = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT); trust.load_verify_locations({}); "
        "trust.wrap_socket(socket.create_connection(('cloud.box.test', 443)), server_hostname='cloud.box.test')"
    )

    def authorities() -> int:
        return (box.file("/etc/ssl/certs/ca-certificates.crt") or "").count("BEGIN")

    def connects(trusted: str) -> bool:
        command = box.command("exec", "/usr/bin/python3", "-c", connect.format(trusted))
        return subprocess.run(command, env=box.environment, capture_output=True, check=False).returncode == 0

    box("authorities", kind)
    assert authorities() >= known
    assert connects("cafile='/etc/ssl/certs/ca-certificates.crt'")
    assert connects("capath='/etc/ssl/certs'") == folder
    box("authorities", "one")
    assert authorities() == 1


def test_an_ethernet_adapter_that_is_pulled_comes_back(box: Box) -> None:
    box("cable", "gone")
    assert "eth0" not in box("exec", "ip", "link")
    wait_until(lambda: box.order() == ["wwan0"], SLACK, "no service of Ethernet's")
    box("cable", "in")
    wait_until(carries(box, "eth0"), SLACK, "the cloud over Ethernet")
    wait_until(lambda: box.order() == ["eth0", "wwan0"], SLACK, "Ethernet on top again")


@on_each_side
def test_a_long_way_takes_its_time_in_either_direction(box: Box, side: str, interface: str) -> None:
    def seconds() -> float:
        begun = time.monotonic()
        assert fetch(box, interface) == (0, "ok\n")
        return time.monotonic() - begun

    box("delay", side, "200")
    assert seconds() > 3 * 0.4  # TCP's handshake, at least one round trip of TLS, the answer
    other = "wwan0" if side == "eth" else "eth0"
    assert fetch(box, other) == (0, "ok\n")
    box("delay", side, "off")
    rules = subprocess.run(
        ["ip", "-n", f"{box.name}-{side}", "rule"], check=True, capture_output=True, text=True
    ).stdout
    assert "lookup 77" not in rules
    assert fetch(box, interface) == (0, "ok\n")


@on_each_side
def test_a_black_hole_takes_what_is_long(box: Box, side: str, interface: str) -> None:
    connect = "import socket; socket.create_connection(('198.51.100.10', 443), 5)"
    box("mtu", side, "600")
    box("exec", "/usr/bin/python3", "-c", connect)
    timed_out = 28
    assert fetch(box, interface, seconds="3")[0] == timed_out  # a certificate is longer
    box("mtu", side, "off")
    assert fetch(box, interface) == (0, "ok\n")
    for wrong in ("99", "-1", "", "many"):
        with pytest.raises(AssertionError, match=r"mtu: use mtu eth\|cell BYTES\|off"):
            box("mtu", side, wrong)


def test_a_provider_that_renumbers_gives_another_address_and_another_router(box: Box) -> None:
    for network in (r"10\.11\.0\.2\d\d/25", r"10\.11\.0\.1\d\d/24"):
        box("lease", "eth", "renumber")
        wait_until(lambda: re.fullmatch(network, address_of(box, "eth0") or ""), SLACK, f"an address like {network}")
        wait_until(carries(box, "eth0"), SLACK, "the cloud over Ethernet")
        wait_until(lambda: box.order() == ["eth0", "wwan0"], SLACK, "Ethernet on top again")
    # Lies and lost leases leave the numbers as they are.
    box("lease", "eth", "renumber")
    box("lease", "eth", "end")
    box("names", "eth", "lie", "192.0.2.7")
    box("names", "eth", "back")
    box("lease", "eth", "back")
    wait_until(lambda: (address_of(box, "eth0") or "").endswith("/25"), SLACK, "the other network")


def test_a_program_is_suspended_by_its_name(box: Box, tmp_path: pathlib.Path) -> None:
    box("exec", "sh", "-c", "echo 1 >/run/count")
    counting = 'n=0; while :; do n=$((n + 1)); echo $n >"$0"; done'
    with open(tmp_path / "log", "w", encoding="utf-8") as log:
        box.start("bash", "-c", f"exec -a counter bash -c '{counting}' /run/count", stdout=log, stderr=log)

    def goes_on() -> bool:
        before = box.file("/run/count")
        return comes_within(1, lambda: box.file("/run/count") != before)

    wait_until(goes_on, SLACK, "that it counts")
    box("program", "counter", "freeze")
    assert not goes_on()
    box("program", "counter", "thaw")
    assert goes_on()
    assert "no program named nobody runs on the gateway" in box.try_to("program", "nobody", "freeze").stderr


def test_neighbours_do_what_they_are_called_for_until_they_are_gone(box: Box) -> None:
    def of_nobody() -> int:
        return int(box("exec", "sh", "-c", "find /var/tmp -user nobody | wc -l"))

    box("neighbour", "litters")
    wait_until(lambda: of_nobody() > 20, SLACK, "litter")
    box("neighbour", "floods")  # instead of the first
    wait_until(lambda: "New client connected from 127.0.0.1" in box("log", "broker"), SLACK, "a client of the broker")
    wait_until(lambda: "protocol error" in box("log", "broker"), SLACK, "nonsense on the broker")
    assert of_nobody() == 0
    box("neighbour", "crashes")
    wait_until(lambda: box("log", "neighbour").count("at work") >= 2, SLACK, "the second start")
    wait_until(lambda: runs(box, "orv-shell"), SLACK, "the next start")
    assert "crash-all-the-time" in command_lines(box)
    box("neighbour", "gone")
    assert not runs(box, "orv-shell") and "crash-all-the-time" not in command_lines(box)


def command_lines(box: Box) -> str:
    """Of all that runs on the gateway."""
    pids = subprocess.run(["ip", "netns", "pids", f"{box.name}-gw"], text=True, capture_output=True, check=True)
    lines = []
    for pid in pids.stdout.split():
        with contextlib.suppress(OSError):  # it has ended
            lines.append(pathlib.Path(f"/proc/{pid}/cmdline").read_text(encoding="utf-8", errors="replace"))
    return "\n".join(lines)


def runs(box: Box, name: str) -> bool:
    return box.try_to("program", name, "thaw").returncode == 0


@on_each_side
def test_a_connection_that_leads_nowhere_is_seen_once_and_where_it_was_sent(
    box: Box, side: str, interface: str
) -> None:
    box("provider", side, "dead")
    other = "cell" if side == "eth" else "eth"
    to = ("--resolve", "cloud.box.test:443:198.51.100.10", CLOUD)
    box("exec", "curl", "-s", "-m", "3", "--interface", f"if!{interface}", *to, must_succeed=False)
    wait_until(lambda: begun(box, side) == 1, SLACK, "the connection at the provider")
    assert begun(box, other) == 0
    assert f"https: over {interface}, IPv4, begun " in box("status")
