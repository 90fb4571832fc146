# SPDX-License-Identifier: Apache-2.0
from orv_testbed.fixtures import box, judge_calls, make_scene, scene  # noqa: F401
