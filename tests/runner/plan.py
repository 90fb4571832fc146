# SPDX-License-Identifier: Apache-2.0
"""What script/test runs: each step is a command of the script folder, and its name is what a person types after script/."""

from __future__ import annotations

import dataclasses


@dataclasses.dataclass(frozen=True)
class Step:
    """One command of the script folder, with the environment that this run adds."""

    name: str
    environment: tuple[tuple[str, str], ...] = ()
    gives_way: bool = False  # to the other steps of its group: it computes what time they leave

    @property
    def file_name(self) -> str:
        return "-".join(self.name.replace("-", " ").split())


# Steps of one group run at the same time: they mostly wait, or compute what time the others leave.
Group = tuple[Step, ...]

SANITIZED = (("ORV_BUILD", "build/asan-ubsan"),)
RELEASED = (("ORV_BUILD", "build/release"),)

# What a developer runs before a commit: one build, under sanitizers, and everything on it.
SHORT: tuple[Group, ...] = (
    (Step("lint"), Step("python-test"), Step("preset-test --build asan-ubsan")),
    (
        Step("preset-test asan-ubsan"),
        Step("demo --loopback --no-color", SANITIZED),
        Step("system-test --short", SANITIZED),
    ),
)

# While the tests of one build wait, the next is built.
ALL: tuple[Group, ...] = (
    (Step("lint"), Step("python-test"), Step("preset-test --build coverage")),
    (Step("preset-test coverage"), Step("preset-test --build asan-ubsan", gives_way=True)),
    (Step("preset-test asan-ubsan"), Step("preset-test --build tsan", gives_way=True)),
    (Step("preset-test tsan"), Step("preset-test --build release", gives_way=True)),
    (Step("preset-test release"),),
    (Step("fuzz 10"),),
    (Step("external-platform-test"), Step("docs"), Step("abi check")),
    (Step("demo --no-color", RELEASED), Step("demo --loopback --no-color", RELEASED), Step("multi-app-test", RELEASED)),
    (Step("panel-test", RELEASED),),
    (Step("system-test", RELEASED), Step("lint --tidy", gives_way=True), Step("explore 60", gives_way=True)),
    (Step("package-test"), Step("cross-test")),
    (Step("package"),),
    (Step("size --run"),),
)


def named(names: list[str]) -> tuple[Group, ...]:
    """The plan for the command line: nothing, "all", or steps by name, one after the other."""
    if not names:
        return SHORT
    if names == ["all"]:
        return ALL
    known = {step.name: step for plan in (SHORT, ALL) for group in plan for step in group}
    unknown = [name for name in names if name not in known]
    if unknown:
        raise KeyError(f"no such step: {', '.join(unknown)}; there are: all, {', '.join(sorted(known))}")
    return tuple((known[name],) for name in names)
