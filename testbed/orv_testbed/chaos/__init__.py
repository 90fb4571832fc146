# SPDX-License-Identifier: Apache-2.0
"""Many faults at a time on a gateway box, drawn from a seed: docs/testing.md tells how to use it."""
