# SPDX-License-Identifier: Apache-2.0
"""What script/demo shows: on the gateway box, and over loopback."""
