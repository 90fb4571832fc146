# SPDX-License-Identifier: Apache-2.0
"""Two and ten applications beside each other on one broker: what becomes of each, and what they see of each other."""
from __future__ import annotations

from collections.abc import Iterator

import pytest

from orv_testbed.fleet import PATIENCE, Fleet
from orv_testbed.topics import GREEN, PREPARE_FOR_SHUTDOWN, SHUTDOWN_READINESS
from orv_testbed.waiting import wait_until


@pytest.fixture(params=[2, 10], ids=["two", "ten"])
def fleet(request: pytest.FixtureRequest) -> Iterator[Fleet]:
    fleet = Fleet(request.param)
    try:
        yield fleet
    finally:
        fleet.close()


def test_each_announces_its_own_feature(fleet: Fleet) -> None:
    fleet.await_words("init", "booting", "ready")
    fleet.await_words("available", "true")
    assert len({topic for topic, _, _ in fleet.observer.messages() if topic.endswith("/init")}) == len(
        fleet.applications
    )


def test_an_order_reaches_the_one_it_is_for(fleet: Fleet) -> None:
    fleet.await_words("init", "booting", "ready")
    for ordered in fleet.applications:
        fleet.order_and_settle(ordered, "reload")
        for application in fleet.applications:
            actions = [line for line in application.callbacks() if line.startswith("OnAppAction")]
            assert actions == (["OnAppActionIndication RELOAD"] if application is ordered else [])


def test_one_can_order_another(fleet: Fleet) -> None:
    fleet.await_words("init", "booting", "ready")
    first, last = fleet.applications[0], fleet.applications[-1]
    first.do(f"action {last.name} DISABLED")
    fleet.await_in_all("OnAppActionIndication DISABLED", [last])
    fleet.order_and_settle(last, "enabled")
    assert not [line for line in first.callbacks() if line.startswith("OnAppAction")]


def test_nobody_is_told_of_anothers_status(fleet: Fleet) -> None:
    fleet.await_words("init", "booting", "ready")
    fleet.order_and_settle(fleet.applications[0], "reload")
    for application in fleet.applications:
        assert not [line for line in application.callbacks() if line.startswith("OnAppStatus")]


def test_all_hear_who_is_ready_for_a_shutdown(fleet: Fleet) -> None:
    fleet.await_words("init", "booting", "ready")
    fleet.applications[0].do("shutdown")
    wait_until(lambda: fleet.observer.messages(PREPARE_FOR_SHUTDOWN), PATIENCE, "the request for shutdown")
    for application in fleet.applications:
        fleet.observer.publish(SHUTDOWN_READINESS + application.name, "ready")
    for application in fleet.applications:
        fleet.await_in_all(f"OnFeatureShutdownReadinessIndication {application.name} true")


def test_one_that_dies_is_announced_and_the_others_go_on(fleet: Fleet) -> None:
    fleet.await_words("init", "booting", "ready")
    fleet.observer.forget()
    dead, *living = fleet.applications
    dead.kill()
    wait_until(lambda: fleet.words(dead, "available") == ["false"], PATIENCE, "the last will")
    fleet.order_and_settle(living[0], "reload")
    assert "OnAppActionIndication RELOAD" in living[0].callbacks()
    for application in living:
        assert fleet.words(application, "available") == []


def test_one_that_says_good_bye_leaves_no_will(fleet: Fleet) -> None:
    fleet.await_words("init", "booting", "ready")
    fleet.observer.forget()
    gone, *living = fleet.applications
    gone.do("quit")
    gone.process.wait(30)
    fleet.order_and_settle(living[0], "reload")
    assert fleet.words(gone, "available") == []


def test_a_broker_restart_brings_every_feature_back(fleet: Fleet) -> None:
    fleet.await_words("init", "booting", "ready")
    fleet.restart_broker()
    fleet.await_words("available", "true")
    for ordered in fleet.applications:
        fleet.order_and_settle(ordered, "reload")
        for application in fleet.applications:
            assert application.callbacks().count("OnAppActionIndication RELOAD") == (1 if application is ordered else 0)
    fleet.await_words("available", "true")


def test_the_last_event_of_any_of_them_sets_the_gateways_leds(fleet: Fleet) -> None:
    fleet.await_words("init", "booting", "ready")
    first, last = fleet.applications[0], fleet.applications[-1]
    first.do("event CLOUD_CONNECTED")
    wait_until(
        lambda: [payload for _, payload, _ in fleet.observer.messages(GREEN)] == ["On"], PATIENCE, "the green LED on"
    )
    last.do("event ETHERNET_CONNECTED")
    wait_until(
        lambda: [payload for _, payload, _ in fleet.observer.messages(GREEN)] == ["On", "Off"],
        PATIENCE,
        "the green LED off",
    )
