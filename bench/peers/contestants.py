# SPDX-License-Identifier: Apache-2.0
"""Who decides on the box where the gateway's default route leads: gateway-app, or a connection manager by itself."""
from __future__ import annotations

import os
import pathlib
import shutil
import signal
from collections.abc import Callable
from typing import Protocol

from orv_testbed.application import Application
from orv_testbed.box import Box
from orv_testbed.layout import CLOUD_NAME
from orv_testbed.programs import daemon
from orv_testbed.waiting import wait_until

CHECK = f"http://{CLOUD_NAME}/check"


def end(box: Box, process: str) -> None:
    pid = box.pid_of(process)
    os.kill(pid, signal.SIGTERM)
    command_line = pathlib.Path(f"/proc/{pid}/cmdline")  # empty when only its status is left
    wait_until(lambda: not command_line.exists() or not command_line.read_text(encoding="utf-8"), 5, f"{process} ended")


class GatewayApp:
    """gateway-app with ConnMan, whose own check is off."""

    settling = 5

    def start(self, box: Box, folder: pathlib.Path) -> None:
        application = Application(box, folder)
        application.wait_for("Cloud connected with Ethernet interface", 30)


class ConnMan:
    """ConnMan by itself; `settings` are lines of its configuration beside the box's."""

    settling = 30

    def __init__(self, *settings: str) -> None:
        self.settings = settings

    def start(self, box: Box, folder: pathlib.Path) -> None:
        box("connman", "stop")
        file = box.folder / "gateway/etc/orv/connman.conf"
        lines = [line for line in file.read_text(encoding="utf-8").splitlines() if "OnlineCheck" not in line]
        lines += ["EnableOnlineCheck = true", f"OnlineCheckIPv4URL = {CHECK}", *self.settings]
        file.write_text("\n".join(lines) + "\n", encoding="utf-8")
        for _ in range(5):
            box("connman", "start")
            wait_until(lambda: len(box.order()) == 2, 30, "both interfaces connected in ConnMan")
            wait_until(lambda: " online " in box("services"), 30, "ConnMan online")
            if box.order()[0] == "eth0":
                break
            box("connman", "stop")  # Cellular was first, and whoever is online first stays on top
        else:
            raise AssertionError("ConnMan does not put Ethernet on top")
        # Its experimental check can ask hundreds of times a second: the other boxes' share of the processor is not for that.
        os.setpriority(os.PRIO_PROCESS, box.pid_of("connman"), 19)


NM_SETTINGS = """[main]
plugins=keyfile
no-auto-default=*
dhcp=internal
rc-manager=unmanaged
auth-polkit=root-only
[connectivity]
uri={check}
{interval}
"""

NM_PROFILE = """[connection]
id={interface}
uuid=5c0f1f9a-0000-4000-8000-00000000000{number}
type=ethernet
interface-name={interface}
[ipv4]
{ipv4}
[ipv6]
method=disabled
"""

NM_ETHERNET = ("method=auto", "routes={eth_names}/32,10.11.0.1")
NM_CELLULAR = (
    "method=manual\naddress1=10.12.0.50/24,10.12.0.1\ndns=10.22.0.53;\nroute-metric=700",
    "routes={cell_names}/32,10.12.0.1",
)

# Where /sys can be written, it waits for a udev that the box does not have. Wwan0 is to it an interface with a fixed address.
NM_START = """umount -n /sys/class/net/wwan0/uevent
mount -n -o remount,ro,bind /sys
exec "$0" --no-daemon
"""


class NetworkManager:
    """NetworkManager instead of ConnMan. With `server_routes` its profiles have a route to each provider's name server
    over that provider, as ConnMan makes them: without, every look-up takes the default route."""

    def __init__(self, interval: int | None = None, server_routes: bool = True, settling: int = 30) -> None:
        self.interval = interval
        self.server_routes = server_routes
        self.settling = settling

    def start(self, box: Box, folder: pathlib.Path) -> None:
        box("connman", "stop")
        self.write(box.folder / "gateway")
        end(box, "resolver")  # which reads what ConnMan knows of name servers
        with open(folder / "resolver.log", "w", encoding="utf-8") as log:
            box.start(
                "dnsmasq",
                "--keep-in-foreground",
                "--conf-file=/dev/null",
                "--user=root",
                "--pid-file=",
                "--no-hosts",
                "--listen-address=127.0.0.1",
                "--bind-interfaces",
                "--resolv-file=/run/NetworkManager/resolv.conf",
                "--all-servers",
                "--cache-size=0",
                stdout=log,
                stderr=log,
            )
        with open(folder / "NetworkManager.log", "w", encoding="utf-8") as log:
            box.start(
                "unshare", "--mount", "sh", "-c", NM_START, daemon("NetworkManager", "bench"), stdout=log, stderr=log
            )
        wait_until(lambda: sorted(box.default_interfaces()) == ["eth0", "wwan0"], 30, "NetworkManager's default routes")

    def write(self, gateway: pathlib.Path) -> None:
        settings = gateway / "etc/NetworkManager"
        for folder in (settings, gateway / "run/NetworkManager", gateway / "var/lib/NetworkManager"):
            shutil.rmtree(folder, ignore_errors=True)
            folder.mkdir(parents=True)
        (settings / "system-connections").mkdir()
        interval = f"interval={self.interval}" if self.interval else ""
        (settings / "NetworkManager.conf").write_text(
            NM_SETTINGS.format(check=CHECK, interval=interval), encoding="utf-8"
        )
        for number, (interface, parts) in enumerate((("eth0", NM_ETHERNET), ("wwan0", NM_CELLULAR))):
            ipv4 = "\n".join(parts if self.server_routes else parts[:1])
            ipv4 = ipv4.format(eth_names="10.21.0.53", cell_names="10.22.0.53")
            profile = settings / f"system-connections/{interface}.nmconnection"
            profile.write_text(NM_PROFILE.format(interface=interface, number=number, ipv4=ipv4), encoding="utf-8")
            profile.chmod(0o600)


class Contestant(Protocol):
    settling: int  # seconds

    def start(self, box: Box, folder: pathlib.Path) -> None:
        ...


CONTESTANTS: dict[str, Callable[[], Contestant]] = {
    "gateway-app": GatewayApp,
    "networkmanager": lambda: NetworkManager(settling=240),  # so the fault comes 60 s before the next of its checks
    "networkmanager-1s": lambda: NetworkManager(1),
    "networkmanager-1s-plain": lambda: NetworkManager(1, server_routes=False),
    "connman": ConnMan,
    "connman-check": lambda: ConnMan("EnableOnlineToReadyTransition = true"),
    "connman-check-1s": lambda: ConnMan("EnableOnlineToReadyTransition = true", "OnlineCheckMaxInterval = 1"),
}
