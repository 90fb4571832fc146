// SPDX-License-Identifier: Apache-2.0
#include "GatewayMainBaseUnits/IpInterfacesMapping.h"

#include "config/GatewayConfig.h"

namespace GatewayMainBaseUnits {

IpInterfacesMapping& IpInterfacesMapping::GetInstance() {
    static IpInterfacesMapping instance;
    return instance;
}

std::string IpInterfacesMapping::GetInterfaceName(const std::string& role) const {
    if (role == "Ethernet")
        return OrvPlatform::Config().interfaces.ethernet;
    if (role == "Cellular")
        return OrvPlatform::Config().interfaces.cellular;
    return {};
}

} // namespace GatewayMainBaseUnits
