// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "CommonUtils/Logger.h"
#include "ConnmanWorker.h"

#include <mutex>

namespace OrvPlatform {

/// A stand-in for machines without a connection manager: every order is obeyed at once, in memory only. It moves no
/// route, and says so when it starts.
class ConnmanScripted : public CommonUtils::Networking::ConnmanCommands::Worker {
public:
    ConnmanScripted();

    std::string TopPriorityInterface() override;
    bool SetTopPriorityInterface(const std::string& interfaceName) override;
    bool SetDnsConfiguration(const std::string& interfaceName, const std::vector<std::string>& servers) override;

private:
    CommonUtils::Logger logger;
    std::mutex mutex;
    std::string top;
};

} // namespace OrvPlatform
