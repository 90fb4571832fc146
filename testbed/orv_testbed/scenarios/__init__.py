# SPDX-License-Identifier: Apache-2.0
"""One scenario of orv-shell on several gateways: in virtual time, on a broker of this machine, on a gateway box."""
