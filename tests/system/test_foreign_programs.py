# SPDX-License-Identifier: Apache-2.0
"""Other programs on the gateway touch what is the application's and ConnMan's."""
from __future__ import annotations

import time

from orv_testbed.scene import Scene
from orv_testbed.waiting import SLACK, wait_until


def replace_default_route(scene: Scene, router: str, interface: str) -> None:
    """Until it stays: now and then ConnMan notices by itself."""

    def replaced_for_a_second() -> bool:
        scene.box("exec", "ip", "route", "replace", "default", "via", router, "dev", interface)
        deadline = time.monotonic() + 1
        while time.monotonic() < deadline:
            if scene.box.default_interfaces() != [interface]:
                return False
            time.sleep(0.1)
        return True

    wait_until(replaced_for_a_second, SLACK, "a default route that stays replaced")


def test_a_default_route_that_another_program_has_replaced_is_put_right(scene: Scene) -> None:
    scene.expected_complaints = ("another program has replaced it",)
    scene.orders_may_be_late = True  # ConnMan's order is changed and restored without a decision of the supervision
    replace_default_route(scene, "10.12.0.1", "wwan0")
    scene.application.wait_for("the default route leads over wwan0, but ConnMan has eth0 on top", 6)
    wait_until(lambda: scene.box.default_interfaces() == ["eth0"], 5 + SLACK, "the default route over Ethernet")
    scene.settles("eth0", 10)


def test_a_replaced_default_route_is_put_right_on_cellular_too(scene: Scene) -> None:
    scene.reach("CELLULAR_ACTIVE")
    scene.expected_complaints += ("another program has replaced it",)
    scene.orders_may_be_late = True
    replace_default_route(scene, "10.11.0.1", "eth0")
    scene.application.wait_for("the default route leads over eth0, but ConnMan has wwan0 on top", 6)
    scene.settles("wwan0", 15)


def test_a_status_file_that_another_client_has_written_is_put_right(scene: Scene) -> None:
    statuses = scene.box.status_file()
    path = scene.box.folder / "gateway/var/tmp/new_enterprise_statuses.csv"
    for _ in range(5):
        path.write_text(
            '"Enterprise Feature","Disabled"\n"Cloud Connection","Down"\n"Ethernet","Down"\n"Cellular","Down"',
            encoding="utf-8",
        )
        wait_until(lambda: scene.box.status_file() == statuses, 1 + SLACK, "the status file put right")
