// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace GatewayMainBaseUnits {

class IpInterfacesMapping {
public:
    static IpInterfacesMapping& GetInstance();
    std::string GetInterfaceName(const std::string& role) const;
};

} // namespace GatewayMainBaseUnits
