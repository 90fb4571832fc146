# SPDX-License-Identifier: Apache-2.0
"""The cloud: an HTTPS endpoint that notes every TLS handshake, and an MQTT broker over TLS, with a CA of their own."""
from __future__ import annotations

import functools
import pathlib
import tempfile

from orv_testbed.box_processes import BoxProcesses
from orv_testbed.certificates import Authority
from orv_testbed.families import Families
from orv_testbed.layout import (
    CLOUD_ADDRESS,
    CLOUD_ADDRESS_6,
    CLOUD_NAME,
    ETHERNET,
    PORTAL_NAME,
    SIDES,
    BoxError,
    Layout,
    Side,
)
from orv_testbed.networks import Namespace
from orv_testbed.programs import Program, daemon
from orv_testbed.waiting import comes_within

LISTENER = """listener 8883 {address}
cafile {tls}/ca.pem
certfile {tls}/server.pem
keyfile {tls}/server.key
"""
BROKER = """user root
{listeners}allow_anonymous true
set_tcp_nodelay true
log_type all
log_timestamp_format %Y-%m-%dT%H:%M:%S
"""


@functools.cache
def certificates() -> dict[str, bytes]:
    """Files by name. All boxes of a process have the same ones: openssl takes its time for them."""
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        right = Authority(folder, "ca", "Gateway box CA")
        wrong = Authority(folder, "other-ca", "A CA that the gateway does not know")
        cloud = f"DNS:{CLOUD_NAME},IP:{CLOUD_ADDRESS},IP:{CLOUD_ADDRESS_6}"
        right.certify("server", CLOUD_NAME, cloud)
        wrong.certify("wrong", CLOUD_NAME, cloud)
        wrong.certify("portal", PORTAL_NAME, f"DNS:{PORTAL_NAME},IP:{ETHERNET.net}.1")
        return {file.name: file.read_bytes() for file in folder.iterdir()}


class Cloud:
    def __init__(self, layout: Layout, processes: BoxProcesses, namespace: Namespace) -> None:
        self._layout, self._processes, self._namespace = layout, processes, namespace
        self._folder = layout.state / "cloud"

    def _addresses(self) -> list[str]:
        families = Families.of(self._layout.state).cloud
        return [address for family, address in (("4", CLOUD_ADDRESS), ("6", CLOUD_ADDRESS_6)) if family in families]

    def start(self) -> None:
        tls = self._layout.certificates
        tls.mkdir(parents=True, mode=0o700)
        for name, content in certificates().items():
            (tls / name).write_bytes(content)
        for side in SIDES.values():
            self.answer(side, "ok")
        listeners = "".join(LISTENER.format(address=address, tls=tls) for address in self._addresses())
        configuration = BROKER.format(listeners=listeners)
        (self._folder / "mosquitto.conf").write_text(configuration, encoding="utf-8")
        self.open()

    def answer(self, side: Side, how: str) -> None:
        """How the HTTPS endpoint meets those who come over that side; see cloud_https.py."""
        file = self._folder / f"answer-{side.name}"
        new = file.with_suffix(".new")
        new.write_text(how + "\n", encoding="ascii")
        new.rename(file)

    def open(self) -> None:
        here = self._namespace
        if not self._processes.alive("cloud-https"):
            program = Program(here, "orv_testbed.cloud_https", (self._folder, *self._addresses()))
            self._processes.start("cloud-https", program)
        if not self._processes.alive("cloud-mqtt"):
            command = here.command(daemon("mosquitto"), "-c", self._folder / "mosquitto.conf")
            self._processes.start("cloud-mqtt", command)
        for what, process, port in (("endpoint", "cloud-https", 443), ("broker", "cloud-mqtt", 8883)):
            if not comes_within(20, lambda: here.listens(port)):
                raise BoxError(f"the cloud's {what} does not start, see {self._layout.log(process)}")

    def close(self) -> None:
        self._processes.end("cloud-https")
        self._processes.end("cloud-mqtt")
