// SPDX-License-Identifier: Apache-2.0
#include "ConnmanScripted.h"

namespace OrvPlatform {

ConnmanScripted::ConnmanScripted() : logger("ConnmanCommands", 0) {
    logger.Warning() << "[connman] scripted = true: no connection manager is used, orders move no route";
}

std::string ConnmanScripted::TopPriorityInterface() {
    std::lock_guard<std::mutex> lock(mutex);
    return top;
}

bool ConnmanScripted::SetTopPriorityInterface(const std::string& interfaceName) {
    std::lock_guard<std::mutex> lock(mutex);
    if (interfaceName.empty())
        return false;
    if (top != interfaceName) {
        top = interfaceName;
        logger.Info() << "scripted: " << interfaceName << " is on top";
    }
    return true;
}

bool ConnmanScripted::SetDnsConfiguration(const std::string& interfaceName, const std::vector<std::string>& servers) {
    std::string text;
    for (const std::string& server : servers)
        text += (text.empty() ? "" : ", ") + server;
    logger.Info() << "scripted: name servers of " << interfaceName << ": "
                  << (text.empty() ? "as the network offers" : text);
    return !interfaceName.empty();
}

} // namespace OrvPlatform
