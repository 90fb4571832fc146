# SPDX-License-Identifier: Apache-2.0
"""A program that is a fork is what it would be by itself."""
from __future__ import annotations

import os
import pathlib
import tempfile

import pytest

from orv_testbed.box import Box
from orv_testbed.preloaded import Preloaded
from orv_testbed.programs import HERE, Program, python_environment
from orv_testbed.waiting import SLACK, wait_until


@pytest.fixture(name="starter", scope="module")
def make_starter() -> Preloaded:
    return Preloaded()


def test_it_has_the_arguments_the_files_and_the_session_that_it_is_given(starter: Preloaded) -> None:
    reading, writing = os.pipe()
    with tempfile.TemporaryFile() as output, open(reading, "rb") as given:
        files = (given.fileno(), output.fileno(), output.fileno())
        pid = starter.start(Program(HERE, "json.tool", ("--compact",)), files, python_environment(), new_session=True)
        assert os.getsid(pid) == pid
        os.write(writing, b'{"one": [1, 2]}')
        os.close(writing)
        wait_until(lambda: not pathlib.Path(f"/proc/{pid}").exists(), SLACK, "the program's end")
        assert os.pread(output.fileno(), 100, 0) == b'{"one":[1,2]}\n'


def test_it_has_no_environment_but_its_own_and_says_why_it_fails(starter: Preloaded) -> None:
    with tempfile.TemporaryFile() as output, open(os.devnull, "rb") as nothing:
        files = (nothing.fileno(), output.fileno(), output.fileno())
        pid = starter.start(Program(HERE, "orv_testbed.modem"), files, {"ONLY": "this"}, new_session=False)
        wait_until(lambda: not pathlib.Path(f"/proc/{pid}").exists(), SLACK, "the program's end")
        assert b"not enough values to unpack" in os.pread(output.fileno(), 10000, 0)


def test_on_the_gateway_it_is_where_and_may_what_each_command_there_may(box: Box, tmp_path: pathlib.Path) -> None:
    with open(tmp_path / "said", "wb") as output:
        pid = box.start_own("orv_testbed.witness", output=output)
    wait_until(lambda: b"listening" in (tmp_path / "said").read_bytes(), SLACK, "the program on the gateway")
    asked = "readlink /proc/self/ns/net /proc/self/ns/mnt /proc/self/ns/uts; grep -E 'Cap(Prm|Eff|Bnd)' /proc/self/status; pwd"
    *there, directory = box("exec", "sh", "-c", asked).splitlines()
    links = [os.readlink(f"/proc/{pid}/ns/{name}") for name in ("net", "mnt", "uts")]
    status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii").splitlines()
    may = [line for line in status if line.startswith(("CapPrm", "CapEff", "CapBnd"))]
    assert [*links, *may] == there
    assert os.path.samefile(f"/proc/{pid}/cwd", directory)  # in a chroot its name is another one
