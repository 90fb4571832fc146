# SPDX-License-Identifier: Apache-2.0
from __future__ import annotations

from orv_testbed.fixtures import box, judge_calls, make_scene, scene  # noqa: F401
