# SPDX-License-Identifier: Apache-2.0
"""What the panel is told on its command line. As a program it says what that asks for, before anything is built:
"box" or "other", or with exit status 2 what is wrong."""
from __future__ import annotations

import argparse
import pathlib
import shutil
import sys
from collections.abc import Sequence

PORT = 8420  # the same each time, so that a page that is open finds the next panel


def port(word: str) -> int:
    if not (word.isascii() and word.isdigit() and int(word) < 2**16):
        raise argparse.ArgumentTypeError(f"{word!r} is no port: give a number below 65536")
    return int(word)


def options(arguments: Sequence[str]) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="panel",
        usage="panel [--port PORT] [--box NAME [--log FILE] | --on COMMAND...]",
        allow_abbrev=False,
        add_help=False,
    )
    parser.add_argument("--port", type=port)
    parser.add_argument("--box")
    parser.add_argument("--log", type=pathlib.Path)
    parser.add_argument("--on", nargs=argparse.REMAINDER)
    chosen = parser.parse_args(arguments)
    if chosen.log and not chosen.box:
        parser.error("--log is the log of the application on the box that --box names")
    if chosen.on is None:
        return chosen
    if not chosen.on or chosen.box:
        parser.error("--on is followed by the command that reaches the gateway, such as: --on ssh root@gateway")
    if chosen.on[0].startswith("-"):
        parser.error(f"--on comes last, and the command begins with a program, not with {chosen.on[0]}")
    if not shutil.which(chosen.on[0]):
        parser.error(f"there is no program {chosen.on[0]}: install it, or give its path")
    return chosen


if __name__ == "__main__":
    print("other" if options(sys.argv[1:]).on else "box")
