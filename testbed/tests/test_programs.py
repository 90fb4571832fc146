# SPDX-License-Identifier: Apache-2.0
from __future__ import annotations

import os
import pathlib

import pytest

from orv_testbed import programs


def test_the_newest_build_is_taken_but_none_for_another_machine(
    tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(programs, "TREE", tmp_path)
    monkeypatch.delenv("ORV_BUILD", raising=False)
    for time, build in enumerate(("asan-ubsan", "debug", "release", "mipsel-release", "package-mipsel")):
        made = tmp_path / "build" / build / "bin" / "gateway-app"
        made.parent.mkdir(parents=True)
        made.touch()
        os.utime(made, (time, time))
    assert programs.program("gateway-app") == str(tmp_path / "build/release/bin/gateway-app")


def test_a_program_that_is_not_built_is_told_with_the_command_that_builds_it(
    tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(programs, "TREE", tmp_path)
    monkeypatch.delenv("ORV_BUILD", raising=False)
    with pytest.raises(programs.Missing, match="gateway-app is not built: cmake --preset debug"):
        programs.program("gateway-app")
