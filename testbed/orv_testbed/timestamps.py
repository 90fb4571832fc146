# SPDX-License-Identifier: Apache-2.0
"""The times that logs begin their lines with."""
from __future__ import annotations

import datetime


def at(text: str) -> float:
    """A time of a log as a number of seconds."""
    return datetime.datetime.fromisoformat(text.replace("Z", "+00:00")).timestamp()


def stamp(time: datetime.datetime) -> str:
    """A time as it stands in a log: in UTC, with milliseconds."""
    return time.astimezone(datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%S.%f")[:-3] + "Z"
