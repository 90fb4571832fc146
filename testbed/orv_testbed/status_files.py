# SPDX-License-Identifier: Apache-2.0
"""The two status files, as those who read them on the gateway know them."""
from __future__ import annotations

STATUSES = "/var/tmp/new_enterprise_statuses.csv"
ERRORS = "/var/tmp/new_enterprise_errors.csv"

ALL_UP = '"Enterprise Feature","Enabled"\n"Cloud Connection","Up"\n"Ethernet","Up"\n"Cellular","Up"'
FAILURE = "Fatal Error Detected"


def read_statuses(text: str) -> dict[str, str]:
    lines = text.split("\n")
    pairs = (line.replace('"', "").split(",") for line in lines if line)
    return {name: value for name, value in pairs}
