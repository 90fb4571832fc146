# SPDX-License-Identifier: Apache-2.0
"""clang-tidy over several sources in one go."""

from __future__ import annotations

import json
import pathlib
import shutil
import subprocess

import pytest

TREE = pathlib.Path(__file__).resolve().parents[2]
SETTINGS = """Checks: '-*,readability-identifier-naming,clang-analyzer-core.NullDereference'
WarningsAsErrors: '*'
CheckOptions:
  - { key: readability-identifier-naming.FunctionCase, value: CamelCase }
"""

pytestmark = pytest.mark.skipif(shutil.which("clang-tidy-14") is None, reason="no clang-tidy here")


def said_of(folder: pathlib.Path, sources: dict[str, str], flags: str = "-Wall") -> subprocess.CompletedProcess[str]:
    (folder / ".clang-tidy").write_text(SETTINGS)
    database = []
    for name, text in sources.items():
        (folder / name).parent.mkdir(exist_ok=True)
        (folder / name).write_text(text)
        file = str(folder / name)
        database.append({"directory": str(folder), "file": file, "command": f"/usr/bin/c++ {flags} -o x.o -c {file}"})
    (folder / "compile_commands.json").write_text(json.dumps(database))
    command = [str(TREE / "script/lib/tidy"), "compile_commands.json", *sources]
    return subprocess.run(command, cwd=folder, capture_output=True, text=True, check=False, timeout=300)


def test_sources_without_a_fault_pass(tmp_path: pathlib.Path) -> None:
    said = said_of(tmp_path, {"src/One.cpp": "int One() { return 1; }\n", "src/Two.cpp": "int Two() { return 2; }\n"})
    assert (said.returncode, said.stdout) == (0, "")


def test_each_fault_is_named_with_the_place_where_it_stands(tmp_path: pathlib.Path) -> None:
    said = said_of(
        tmp_path,
        {
            "src/One.cpp": "\n\nint one() { return 1; }",
            "src/Two.cpp": "\nint Two(int* p) {\n    p = nullptr;\n    return *p;\n}\n",
        },
    )
    assert said.returncode == 1
    assert "src/One.cpp:3:5: error: invalid case style for function 'one'" in said.stdout
    assert "src/Two.cpp:4:12: error: Dereference of null pointer" in said.stdout


def test_sources_with_the_same_name_for_different_things_are_looked_at_apart(tmp_path: pathlib.Path) -> None:
    own = "namespace {{ const {0} LIMIT = {{}}; }}\nint {1}() {{ return static_cast<int>(sizeof LIMIT); }}\n"
    said = said_of(tmp_path, {"src/One.cpp": own.format("int", "One"), "src/Two.cpp": own.format("char", "two")})
    assert "redefinition" not in said.stdout
    assert "src/Two.cpp:2:5: error: invalid case style for function 'two'" in said.stdout


def test_a_folder_has_settings_of_its_own(tmp_path: pathlib.Path) -> None:
    (tmp_path / "c").mkdir()
    (tmp_path / "c/.clang-tidy").write_text("InheritParentConfig: true\nChecks: '-readability-identifier-naming'\n")
    said = said_of(tmp_path, {"c/One.cpp": "int one() { return 1; }\n", "src/Two.cpp": "int Two() { return 2; }\n"})
    assert (said.returncode, said.stdout) == (0, "")


@pytest.mark.parametrize(
    "flags",
    [
        "-Wall -Winvalid-pch -include /nowhere/cmake_pch.hxx",
        "-Wall -Xclang -include-pch -Xclang /nowhere/cmake_pch.hxx.pch -Xclang -include -Xclang /nowhere/cmake_pch.hxx",
    ],
    ids=["gcc", "clang"],
)
def test_what_a_compiler_has_precompiled_is_not_asked_for(tmp_path: pathlib.Path, flags: str) -> None:
    said = said_of(tmp_path, {"src/One.cpp": "int One() { return 1; }\n"}, flags)
    assert (said.returncode, said.stdout) == (0, "")


def test_a_source_that_is_not_built_is_named(tmp_path: pathlib.Path) -> None:
    (tmp_path / "Lost.cpp").write_text("int Lost() { return 1; }\n")
    (tmp_path / "compile_commands.json").write_text("[]")
    command = [str(TREE / "script/lib/tidy"), "compile_commands.json", "Lost.cpp"]
    said = subprocess.run(command, cwd=tmp_path, capture_output=True, text=True, check=False, timeout=300)
    assert said.returncode != 0
    assert "Lost.cpp" in said.stderr
