# SPDX-License-Identifier: Apache-2.0
"""What the commands of the script folder say to a person who does not know them."""

from __future__ import annotations

import pathlib
import subprocess

import pytest

TREE = pathlib.Path(__file__).resolve().parents[2]
SCRIPTS = sorted(path.name for path in (TREE / "script").iterdir() if path.is_file())
MEASUREMENTS = ["fail-over", "flapping", "cellular-bytes", "soak", "kit", "side-by-side"]
MISUSED = [
    "abi",
    "abi nonsense",
    "bootstrap nonsense",
    "chaos nonsense",
    "chaos --seed",
    "chaos --seed nonsense",
    "chaos --replay",
    "cross-test nonsense",
    "demo nonsense",
    "docs nonsense",
    "explore nonsense",
    "explore --race nonsense",
    "explore --seed",
    "explore --seed nonsense",
    "external-platform-test nonsense",
    "fuzz nonsense",
    "fuzz 10 nonsense",
    "lint nonsense",
    "measure",
    "measure nonsense",
    "measure fail-over nonsense",
    "measure flapping nonsense",
    "measure soak ten",
    "package arm",
    "package-test nonsense",
    "preset-test",
    "preset-test --build --no-lab",
    "preset-test --no-lab nonsense",
    "preset-test nonsense",
    "size nonsense",
    "test nonsense",
    "torture nonsense",
    "torture --one begin new none once",
    "trial",
    "trial nonsense",
    "trial . --explore",
]


def said_by(words: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run(words.split(), cwd=TREE / "script", capture_output=True, text=True, timeout=600)


@pytest.mark.parametrize("script", SCRIPTS)
def test_each_script_explains_itself_and_does_nothing_else(script: str) -> None:
    said = said_by(f"./{script} --help")
    assert said.returncode == 0
    assert said.stdout.startswith(script)
    assert "shellcheck" not in said.stdout and "SPDX" not in said.stdout
    assert said.stderr == ""


@pytest.mark.parametrize(
    "page, quoted, changed",
    [
        ("docs/broker.md", "the broker does not keep up", "the broker cannot keep up"),
        ("docs/connman.md", "is put on top", "was put on top"),
        ("docs/route.md", "poke cell aborted", "poke aborted"),
        ("docs/status.md", "and ConnMan took the other interface", "and ConnMan chose the other interface"),
        ("docs/logging.md", "route is Cell, reconnecting", "the route is Cell, reconnecting"),
        ("docs/panel.md", "what the command printed is no status", "what the command prints is no status"),
        ("apps/gateway-app/README.md", "is not for …", "is not one for …"),
    ],
)
def test_a_page_may_not_change_what_the_log_says(page: str, quoted: str, changed: str, tmp_path: pathlib.Path) -> None:
    text = (TREE / page).read_text(encoding="utf-8")
    assert quoted in text
    copy = tmp_path / pathlib.Path(page).name
    copy.write_text(text.replace(quoted, changed), encoding="utf-8")
    command = str(TREE / "script/lib/quoted-lines")
    assert subprocess.run([command, page], cwd=TREE, capture_output=True).returncode == 0
    said = subprocess.run([command, str(copy)], cwd=TREE, capture_output=True, text=True)
    assert said.returncode == 1
    assert changed.split(" …")[0] in said.stdout


@pytest.mark.parametrize("measurement", MEASUREMENTS)
def test_each_measurement_explains_itself(measurement: str) -> None:
    said = said_by(f"./measure {measurement} --help")
    assert said.returncode == 0
    assert measurement in said.stdout


@pytest.mark.parametrize("words", MISUSED)
def test_what_a_script_does_not_understand_is_named_and_nothing_is_done(words: str) -> None:
    said = said_by(f"./{words}")
    assert said.returncode == 2
    assert said.stderr.startswith(words.split()[0] + ": ")
    if "nonsense" in words:
        assert "nonsense" in said.stderr.splitlines()[0]
