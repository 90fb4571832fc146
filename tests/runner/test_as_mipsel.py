# SPDX-License-Identifier: Apache-2.0
"""What the emulator of single commands says where it may not run."""

from __future__ import annotations

import os
import pathlib
import platform
import subprocess

import pytest

TREE = pathlib.Path(__file__).resolve().parents[2]
REFUSING = '#!/bin/sh\n[ "$1" != --user ] || exit 1\nexec /usr/bin/unshare "$@"\n'
TIMES = 8  # whoever asks for a namespace may be gone before it is looked for, or not


@pytest.mark.skipif(os.geteuid() != 0, reason="needs root")
@pytest.mark.skipif([int(part) for part in platform.release().split(".")[:2]] < [6, 7], reason="needs Linux 6.7")
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
