# SPDX-License-Identifier: Apache-2.0
"""A fake connection manager on a message bus of its own."""
