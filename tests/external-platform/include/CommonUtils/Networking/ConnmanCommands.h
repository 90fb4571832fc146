// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace CommonUtils {
namespace Networking {

class ConnmanCommands {
public:
    static ConnmanCommands& GetInstance();
    std::string GetTopPriorityInterface();
    bool SetTopPriorityInterface(const std::string& interfaceName);
    bool SetDnsConfiguration(const std::string& interfaceName, const std::string& first, const std::string& second);

private:
    std::string top;
};

} // namespace Networking
} // namespace CommonUtils
