# SPDX-License-Identifier: Apache-2.0
"""The panel: a gateway, live, in a browser."""
