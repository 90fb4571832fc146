# SPDX-License-Identifier: Apache-2.0
"""A gateway that is a machine of its own: a MIPS32 board in qemu, between the box's providers."""
