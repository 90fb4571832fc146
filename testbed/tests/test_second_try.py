# SPDX-License-Identifier: Apache-2.0
from __future__ import annotations

import pathlib
import subprocess
import sys

import pytest

FAILS_FIRST = """
import pathlib, pytest
@pytest.mark.parametrize("number", range({count}))
def test_scenario(number):
    seen = pathlib.Path(__file__).with_name(f"seen-{{number}}")
    was = seen.exists()
    seen.write_text("")
    assert was and not {always}, "the first time"
"""


def run(folder: pathlib.Path, monkeypatch: pytest.MonkeyPatch, **values: object) -> subprocess.CompletedProcess[str]:
    monkeypatch.setenv("ORV_REPORTS", str(folder))
    (folder / "test_it.py").write_text(FAILS_FIRST.format(**values), encoding="utf-8")
    command = [
        sys.executable,
        "-B",
        "-m",
        "pytest",
        "-q",
        "-p",
        "no:cacheprovider",
        "-n",
        "2",
        "--rootdir",
        str(folder),
    ]
    return subprocess.run(
        [*command, "-p", "orv_testbed.second_try", "--reruns", "1", "test_it.py"],
        cwd=folder,
        capture_output=True,
        text=True,
        check=False,
    )


def test_a_scenario_that_passes_at_the_second_try_is_named(
    tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    outcome = run(tmp_path, monkeypatch, count=2, always=False)
    assert outcome.returncode == 0, outcome.stdout
    assert "needed a second try: test_it.py::test_scenario[1]" in outcome.stdout
    assert "the first time" in outcome.stdout
    names = (tmp_path / "second-tries").read_text(encoding="utf-8").splitlines()
    assert sorted(names) == ["test_it.py::test_scenario[0]", "test_it.py::test_scenario[1]"]


def test_a_third_second_try_fails_the_run(tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch) -> None:
    outcome = run(tmp_path, monkeypatch, count=3, always=False)
    assert outcome.returncode == 1, outcome.stdout
    assert "3 second tries, more than 2: the run has failed" in outcome.stdout


def test_a_scenario_that_fails_twice_has_failed(tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch) -> None:
    outcome = run(tmp_path, monkeypatch, count=1, always=True)
    assert outcome.returncode == 1, outcome.stdout
    assert "1 failed" in outcome.stdout
