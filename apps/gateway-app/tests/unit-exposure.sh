#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# unit-exposure.sh UNIT: how far the service's process is exposed, by systemd's measure from 0 to 10; it must stay below 3.
command -v systemd-analyze >/dev/null || {
    echo "needs systemd-analyze, of the package systemd"
    exit 77
}
systemd-analyze security --offline=true --threshold=30 --no-pager "$1"
