# SPDX-License-Identifier: Apache-2.0
"""What the maker of the emulated machine's root says where Debian's packages cannot be had."""

from __future__ import annotations

import os
import pathlib
import subprocess
from collections.abc import Callable

import pytest

TREE = pathlib.Path(__file__).resolve().parents[2]
# Like debootstrap when its mirror lacks a package: in the first call, or in the second.
DEBOOTSTRAP = """#!/bin/sh
case "$*" in *--{fails}*) echo "E: Couldn't download packages: connman"; exit 1 ;; esac
"""
Make = Callable[[str, str], subprocess.CompletedProcess[str]]


@pytest.fixture
def make(tmp_path: pathlib.Path) -> Make:
    """Makes a root, with these sources of apt and this debootstrap, and no emulator."""
    here, mirror = tmp_path / "lib", tmp_path / "mirror/dists/bookworm/main/binary-mipsel"
    here.mkdir()
    mirror.mkdir(parents=True)
    (mirror / "Release").write_text("Archive: stable\n")

    def add(name: str, text: str) -> None:
        (here / name).write_text(text)
        (here / name).chmod(0o755)

    def run(sources: str, debootstrap: str) -> subprocess.CompletedProcess[str]:
        add("mipsel-machine", (TREE / "script/lib/mipsel-machine").read_text(encoding="utf-8"))
        add("as-mipsel", "#!/bin/sh\n")
        add("apt-get", f"#!/bin/sh\necho '{sources}'\n")
        add("debootstrap", debootstrap)
        environment = {**os.environ, "PATH": f"{here}:{os.environ['PATH']}", "ORV_CACHE": str(tmp_path / "cache")}
        return subprocess.run([here / "mipsel-machine"], env=environment, capture_output=True, text=True)

    return run


@pytest.mark.parametrize("fails", ["foreign", "download-only"])
def test_a_mirror_that_lacks_a_package_is_no_failure(make: Make, tmp_path: pathlib.Path, fails: str) -> None:
    said = make(f"Debian|Debian|copy:{tmp_path}/mirror/|bookworm", DEBOOTSTRAP.format(fails=fails))
    assert said.returncode == 77
    assert "E: Couldn't download packages: connman" in said.stderr
    assert "mipsel-machine: not run: debootstrap cannot fetch" in said.stderr
    assert list((tmp_path / "cache").iterdir()) == [tmp_path / "cache/machine-mipsel.lock"]


def test_a_machine_without_debian_sources_is_told_so(make: Make) -> None:
    said = make("Other|Other|copy:/nowhere|stable", DEBOOTSTRAP.format(fails="foreign"))
    assert said.returncode == 77
    assert "mipsel-machine: not run: this machine's apt knows no Debian source" in said.stderr
