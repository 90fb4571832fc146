# SPDX-License-Identifier: Apache-2.0
"""What stands in for the surroundings of a gateway: networks, providers, a cloud, a broker, a connection manager, a modem."""
