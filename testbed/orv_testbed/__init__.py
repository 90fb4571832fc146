# SPDX-License-Identifier: Apache-2.0
"""What stands in for a gateway's surroundings: networks, providers, cloud, broker, connection manager, modem."""
