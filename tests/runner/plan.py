# SPDX-License-Identifier: Apache-2.0
"""What script/test runs: each step is a command of the script folder, and its name is what a person types after script/."""

from __future__ import annotations

import dataclasses
import os


@dataclasses.dataclass(frozen=True)
class Step:
    """One command of the script folder, with the environment that this run adds."""

    name: str
    environment: tuple[tuple[str, str], ...] = ()
    optional: bool = (
        False  # a machine that does not allow it may leave it out, with a reason, even where namespaces are required
    )
    after: tuple[str, ...] = ()  # names of steps that must have ended, passed or failed, before this one begins

    @property
    def file_name(self) -> str:
        return "-".join(self.name.replace("-", " ").split())


@dataclasses.dataclass(frozen=True)
class Lane:
    """Steps that run one after the other. The lanes of a plan run side by side."""

    steps: tuple[Step, ...]
    gives_way: bool = False  # to the other lanes: it computes what time they leave


Plan = tuple[Lane, ...]

SANITIZED = (("ORV_BUILD", "build/asan-ubsan"),)
CROWDED = (("ORV_TEST_JOBS", str(3 * len(os.sched_getaffinity(0)))),)  # few other steps are left by then
RELEASED = (("ORV_BUILD", "build/release"),)

BUILD_ASAN = "preset-test --build asan-ubsan"
BUILD_COVERAGE = "preset-test --build coverage"
BUILD_RELEASE = "preset-test --build release"
BUILD_TSAN = "preset-test --build tsan"
BUILD_MIPSEL = "cross-test --build"
BUILD_MACHINE = "machine-test --build"
BUILD_SHORT = "preset-test --build --no-lab asan-ubsan"

# What a developer runs before a commit: one build, under sanitizers, and everything on it but the lab.
SHORT: Plan = (
    Lane((Step(BUILD_SHORT), Step("preset-test --no-lab asan-ubsan", CROWDED))),
    Lane((Step("lint"), Step("python-test"), Step("demo --loopback --no-color", SANITIZED, after=(BUILD_SHORT,)))),
    Lane((Step("system-test --short", SANITIZED, after=(BUILD_SHORT,)),)),
)

# Tests mostly wait. What they leave of the processors goes into the builds of the next ones. package and size build in the
# folders whose tests must have ended, and machine-test installs what package leaves.
ALL: Plan = (
    Lane(
        (
            Step("python-test"),
            Step("system-test", RELEASED, after=(BUILD_RELEASE,)),
            Step("panel-test", RELEASED),
            Step("demo --no-color", RELEASED),
            Step("demo --loopback --no-color", RELEASED),
            Step("multi-app-test", RELEASED),
            Step("package", after=("cross-test",)),
            Step("size --run"),
        ),
    ),
    Lane(
        (
            Step("preset-test release -LE packaged", after=(BUILD_RELEASE,)),
            Step("external-platform-test"),
            Step("docs"),
            Step("abi check"),
            Step("package-test"),  # has what is left out above
            Step("preset-test asan-ubsan", after=(BUILD_ASAN,)),
            Step("cross-test", after=(BUILD_MIPSEL,)),
            Step("preset-test tsan", after=(BUILD_TSAN,)),
            Step("preset-test coverage", after=(BUILD_COVERAGE,)),
            Step("torture 45"),
        ),
    ),
    Lane(
        (
            Step(BUILD_RELEASE),
            Step(BUILD_ASAN),
            Step(BUILD_MIPSEL),
            Step(BUILD_TSAN),
            Step(BUILD_COVERAGE),
            Step("lint --tidy"),  # and all that lint checks without it
            Step("fuzz 10"),
            Step("explore 46"),
            Step("explore --race 14"),
        ),
        gives_way=True,
    ),
    Lane((Step(BUILD_MACHINE, optional=True),), gives_way=True),
    Lane((Step("machine-test", optional=True, after=(BUILD_MACHINE, "package")),)),
)


def steps(plan: Plan) -> list[Step]:
    return [step for lane in plan for step in lane.steps]


def named(names: list[str]) -> Plan:
    """The plan for the command line: nothing, "all", or steps by name, one after the other."""
    if not names:
        return SHORT
    if names == ["all"]:
        return ALL
    known = {step.name: step for step in steps(SHORT) + steps(ALL)}
    unknown = [name for name in names if name not in known]
    if unknown:
        raise KeyError(f"no such step: {', '.join(unknown)}; there are: all, {', '.join(sorted(known))}")
    return (Lane(tuple(dataclasses.replace(known[name], after=()) for name in names)),)
