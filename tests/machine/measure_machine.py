# SPDX-License-Identifier: Apache-2.0
"""script/measure machine [SECONDS [SHIFT]]

Figures of the gateway on the MIPS32 machine, whose clock advances by 2^SHIFT ns with each instruction (2: 250 million
instructions a second; an empty word: as fast as this host emulates it). The steady state as shipped is watched for SECONDS
(1000: more than the quarter of an hour after which the broker stores) of the machine's own time, for a fifth of it at two other
rhythms of the tick, and as long with an outage in it. Asserts nothing. Takes half an hour or more with 1000.
"""
from __future__ import annotations

import json
import os
import pathlib
import re
import sys
import time
from typing import Any

from orv_testbed.calls import Calls
from orv_testbed.machine.gateway import SERVICES, Gateway
from orv_testbed.machine.scene import MachineScene, Seen
from orv_testbed.waiting import wait_until

OURS = ("liborvplatform1", "liborvstacksdk1", "orv-tools")
NEIGHBOURS = ("mosquitto", "connman", "dnsmasq-base", "dbus")
PROGRAMS = "/usr/bin/gateway-app /usr/sbin/orv-source-routes"
NEIGHBOURS_PROGRAMS = "/usr/sbin/mosquitto /usr/sbin/connmand /usr/sbin/dnsmasq /usr/bin/dbus-daemon"
FIXED = "head -c 16777216 /dev/zero | openssl dgst -sha256"
UNITS = (*SERVICES, "dbus", "systemd-journald")


def uptime(gateway: Gateway) -> float:
    return float(gateway.sh("cut -d' ' -f1 /proc/uptime"))


def rest(gateway: Gateway, seconds: float) -> None:
    """The machine's own seconds, which may be longer than the host's."""
    end = uptime(gateway) + seconds
    while (left := end - uptime(gateway)) > 0:
        time.sleep(max(1.0, left))


class Recorder:
    """The machine watches itself for so many of its own seconds; no command from outside is in the figures."""

    def __init__(self, gateway: Gateway, seconds: float) -> None:
        self._told = Seen(gateway)
        self._seconds = seconds
        program = pathlib.Path(__file__).with_name("recorder.py").read_text(encoding="utf-8")
        assert gateway.run("tee", "/run/recorder.py", given=program).status == 0
        watch = f"python3 -B /run/recorder.py {seconds:.0f} {' '.join(UNITS)}"
        gateway.sh(f"systemd-run --quiet --collect sh -c 'sleep 5; exec {watch}'")

    def figures(self) -> dict[str, Any]:
        wait_until(lambda: self._told.lines("measured"), 600 + 20 * self._seconds, "the machine's own figures", pause=1)
        figures: dict[str, Any] = json.loads(self._told.lines("measured")[0])
        return figures


def show(what: str, figures: dict[str, Any]) -> None:
    before, after = figures["before"], figures["after"]
    elapsed = after["uptime"] - before["uptime"]

    def a_second(name: str) -> float:
        rate: float = (after[name] - before[name]) / elapsed
        return rate

    print(f"\n{what}, {elapsed:.0f} s of the machine:")
    print(f"  {'':20} {'processor':>9} {'wake-ups/s':>10} {'RSS kB':>8} {'PSS kB':>8}")
    for unit in UNITS:
        now, then = after["units"][unit], before["units"][unit]
        share = (now["cpu_us"] - then["cpu_us"]) / elapsed / 1e4
        wakes = (now["wakes"] - then["wakes"]) / elapsed
        print(f"  {unit:20} {share:8.2f}% {wakes:10.1f} {now['rss']:8} {now['pss']:8}")
    busy = 100 * (after["busy"] - before["busy"]) / (after["jiffies"] - before["jiffies"])
    print(f"  the whole machine: {busy:.1f} % busy, {a_second('switches'):.0f} changes of task and ", end="")
    print(f"{a_second('interrupts'):.0f} interrupts a second")
    print(
        f"  written to the disk: {after['writes'] - before['writes']} writes, {after['sectors'] - before['sectors']} sectors"
        f" ({a_second('sectors') * 3600 / 2:.0f} kB an hour at this rate)"
    )
    dirtied = {name: now - before["dirtied"].get(name, 0) for name, now in after["dirtied"].items()}
    print("  changed in memory and to be written: ", end="")
    print(", ".join(f"{name} {size // 1024} kB" for name, size in sorted(dirtied.items()) if size) or "nothing")
    print("  files changed: ", end="")
    print(
        ", ".join(f"{path} ({size // 1024} kB)" for path, size in sorted(figures["files"].items())) or "none",
        flush=True,
    )


def steady_state(gateway: Gateway, tick: int, seconds: float) -> None:
    gateway.sh(
        f"sed -i '/^tick-ms=/d' /etc/orv/gateway-app.ini; echo tick-ms={tick} >>/etc/orv/gateway-app.ini; "
        "systemctl restart gateway-app"
    )
    gateway.wait_for_cloud("eth0", 120)
    rest(gateway, 20)
    rhythm = f"a tick each {tick} ms" if tick else "ticks by the situation"
    show(f"steady state, {rhythm}", Recorder(gateway, seconds).figures())


def outage(gateway: Gateway, seconds: float) -> None:
    """A fail-over and the return, watched by what the cloud notes."""
    gateway.forget_handshakes()
    recorder = Recorder(gateway, seconds)
    time.sleep(10)
    gateway("provider", "eth", "dead")
    wait_until(lambda: gateway.handshakes("cell"), 300, "a handshake over Cellular", pause=1)
    time.sleep(30)
    gateway.forget_handshakes()
    gateway("provider", "eth", "back")
    wait_until(lambda: gateway.handshakes("eth"), 300, "a handshake over Ethernet", pause=1)
    show("with one outage", recorder.figures())


def fail_over(gateway: Gateway) -> None:
    scene = MachineScene(gateway, "info")
    try:
        scene.application.wait_for_cloud("eth0", 120)
        gateway("provider", "eth", "dead")
        scene.application.wait_for_cloud("wwan0", 120)
        gateway("provider", "eth", "back")
        scene.application.wait_for_cloud("eth0", 120)
        rest(gateway, 15)
        calls = Calls()
        calls.add("a fail-over and the return", scene.application.stop())
        authorities = gateway.sh("grep -c BEGIN /etc/ssl/certs/ca-certificates.crt")
        print(f"\nthe library's calls through a fail-over and the return, with {authorities} authorities:")
        print("\n".join(calls.lines()), flush=True)
    finally:
        scene.close()


def first_connection(gateway: Gateway) -> None:
    lines = gateway.sh(
        "journalctl -b -o short-monotonic -u gateway-app --no-pager | grep 'connected to the cloud, from'"
    )
    told = re.match(r"\[ *([\d.]+)\]", lines)
    assert told, lines
    print(f"from the kernel's start to the first connection to the cloud: {float(told[1]):.1f} s", flush=True)


def fixed_computation(gateway: Gateway) -> None:
    gateway.sh(FIXED, seconds=120)
    begun, theirs = time.monotonic(), uptime(gateway)
    gateway.sh(FIXED, seconds=120)
    host, own = time.monotonic() - begun, uptime(gateway) - theirs
    print(f"SHA-256 of 16 MB: {own:.2f} s of the machine's time, {host:.2f} s of the host's", flush=True)


def installed_sizes(gateway: Gateway) -> None:
    fields = "${Package}|${Installed-Size}|${Pre-Depends}, ${Depends}|${Provides}\\n"
    packages, provided = {}, {}
    for line in gateway.sh(f"dpkg-query -W -f '{fields}'").splitlines():
        name, size, needs, provides = fields_of(line)
        packages[name] = (int(size), needs)
        provided.update({words.split()[0]: name for words in provides.split(",") if words.split()})

    def closure(names: tuple[str, ...]) -> set[str]:
        found: set[str] = set()
        waiting = list(names)
        while waiting:
            name = waiting.pop()
            if name in found:
                continue
            found.add(name)
            for need in packages[name][1].split(","):
                choices = [words.split()[0].split(":")[0] for words in need.split("/") if words.split()]
                there = [choice if choice in packages else provided.get(choice) for choice in choices]
                waiting += [choice for choice in there if choice][:1]
        return found

    def tell(what: str, names: set[str]) -> None:
        print(f"  {what}: {len(names)} packages, {sum(packages[name][0] for name in names)} kB")

    print("\ninstalled sizes, as the packages tell them:")
    tell("ours", set(OURS))
    tell("ours and all that they depend on", closure(OURS))
    tell("those, mosquitto, ConnMan, dnsmasq, D-Bus and theirs", closure(OURS + NEIGHBOURS))

    def files(programs: str) -> int:
        libraries = f"ldd {programs} | sed -n 's/.*\\(=> \\|^\\t\\)\\(\\/[^ ]*\\) (.*/\\2/p'"
        sizes = gateway.sh(f"({libraries}; printf '%s\\n' {programs}) | sort -u | xargs stat -L -c %s")
        return sum(map(int, sizes.split()))

    print("what has to be there of it, programs and the libraries that they load:")
    print(f"  {PROGRAMS}: {files(PROGRAMS) // 1024} kB")
    print(f"  with {NEIGHBOURS_PROGRAMS}: {files(PROGRAMS + ' ' + NEIGHBOURS_PROGRAMS) // 1024} kB", flush=True)


def fields_of(line: str) -> list[str]:
    """The name and the size are before the first two bars, what is provided behind the last; others part alternatives."""
    name, size, rest_of_it = line.split("|", 2)
    needs, _, provides = rest_of_it.rpartition("|")
    return [name, size, needs.replace("|", "/"), provides]


def main() -> None:
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 1000
    shift = sys.argv[2] if len(sys.argv) > 2 else "2"
    if shift:
        os.environ["ORV_MACHINE_SHIFT"] = shift
        print(f"the machine executes {1000 / 2 ** int(shift):.0f} million instructions a second of its own time")
    begun = time.monotonic()
    with Gateway(f"m{os.getpid():x}") as gateway:
        # The boot after which Cellular was connected for the first time is no ordinary one.
        gateway.sh("sync")
        gateway.cut_power()
        gateway.boot()
        gateway.wait_for_cloud("eth0", 300)
        first_connection(gateway)
        gateway.wait(lambda: gateway.order() == ["eth0", "wwan0"], 120, "both services")
        fixed_computation(gateway)
        installed_sizes(gateway)
        fail_over(gateway)
        for tick, share in ((250, 5), (25, 5), (0, 1)):
            steady_state(gateway, tick, seconds / share)
        outage(gateway, max(120, seconds / 5))
    print(f"{time.monotonic() - begun:.0f} s of the host in all")


main()
