# SPDX-License-Identifier: Apache-2.0
"""The states of the route supervision, and what it writes into the log when it enters one."""
from __future__ import annotations

# In the order of a fail-over and the return from it.
STATES = [
    "ETHERNET_ACTIVE",
    "ETHERNET_LOST_DELAY",
    "POKING_CELLULAR",
    "SWITCHING_TO_CELLULAR",
    "CELLULAR_ACTIVE",
    "SWITCHING_TO_ETHERNET",
    "ETHERNET_SETTLE_DELAY",
]

ENTERED = [
    ("eth cloud lost, start delay to cell", "ETHERNET_LOST_DELAY"),
    ("eth cloud reconnected by itself", "ETHERNET_ACTIVE"),
    ("cell cloud reconnected by itself", "CELLULAR_ACTIVE"),
    ("Started Poke to cell if", "POKING_CELLULAR"),
    ("poke success, route to Cell", "SWITCHING_TO_CELLULAR"),
    ("poke cell aborted", "ETHERNET_ACTIVE"),
    ("route is Cell, reconnecting", "CELLULAR_ACTIVE"),
    ("poke success, route to ETH", "SWITCHING_TO_ETHERNET"),
    ("route is eth, reconnecting", "ETHERNET_SETTLE_DELAY"),
    ("cell to eth delay done", "ETHERNET_ACTIVE"),
    ("as top interface, restarting SM", "ETHERNET_ACTIVE"),
]


def entered(line: str) -> str | None:
    """The state that this line of the log tells of; None for any other line."""
    if "[OrvRoute]" not in line:
        return None
    return next((state for text, state in ENTERED if text in line), None)
