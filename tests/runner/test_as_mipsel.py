# SPDX-License-Identifier: Apache-2.0
"""What the emulator of single commands says where it may not run."""

from __future__ import annotations

import os
import pathlib
import platform
import re
import subprocess

import pytest

TREE = pathlib.Path(__file__).resolve().parents[2]
REFUSING = '#!/bin/sh\n[ "$1" != --user ] || exit 1\nexec /usr/bin/unshare "$@"\n'
TIMES = 8  # whoever asks for a namespace may be gone before it is looked for, or not


def is_older(release: str, major: int, minor: int) -> bool:
    """Whether a kernel that says this of itself is older than major.minor."""
    found = re.match(r"(\d+)\.(\d+)", release)
    return found is not None and (int(found[1]), int(found[2])) < (major, minor)


@pytest.mark.parametrize("release", ["6.6.119", "6.1-rc1", "5.10.0-28-amd64"])
def test_a_kernel_is_too_old(release: str) -> None:
    assert is_older(release, 6, 7)


@pytest.mark.parametrize("release", ["6.7.0", "6.12-rc3", "7.0-rc1", "10.0", "unknown"])
def test_a_kernel_is_new_enough(release: str) -> None:
    assert not is_older(release, 6, 7)


@pytest.mark.skipif(os.geteuid() != 0, reason="needs root")
@pytest.mark.skipif(is_older(platform.release(), 6, 7), reason="needs Linux 6.7")
def test_a_machine_without_user_namespaces_is_told_so(tmp_path: pathlib.Path) -> None:
    refusing = tmp_path / "unshare"
    refusing.write_text(REFUSING, encoding="ascii")
    refusing.chmod(0o755)
    environment = {**os.environ, "PATH": f"{tmp_path}:{os.environ['PATH']}"}
    for _ in range(TIMES):
        command = [str(TREE / "script/lib/as-mipsel"), "/", "true"]
        said = subprocess.run(command, env=environment, capture_output=True, text=True, check=False)
        assert said.returncode == 77
        assert said.stderr == "as-mipsel: not run: this machine permits no user namespaces\n"
