// SPDX-License-Identifier: Apache-2.0
#include "CommonUtils/Networking/ConnmanCommands.h"

#include "config/GatewayConfig.h"
#include "connman/ConnmanClient.h"

#include "CommonUtils/Logger.h"

#include <pthread.h>

namespace CommonUtils::Networking {

class ConnmanCommands::Worker {
public:
    bool IsLeftToTheController(const char* order) {
        if (isController)
            return false;
        logger.Debug() << order << " is left to the gateway's controller, nothing is asked for";
        return true;
    }

private:
    const bool isController = OrvPlatform::Config().IsController();
    CommonUtils::Logger logger{"ConnmanCommands", 0};

public:
    OrvPlatform::ConnmanClient client{OrvPlatform::MessageBus::Address(OrvPlatform::Config().connman.busAddress),
                                      {},
                                      isController ? OrvPlatform::ConnmanRole::CONTROLLER
                                                   : OrvPlatform::ConnmanRole::ONLOOKER};
};

namespace {

OrvPlatform::ConnmanClient* forkedClient = nullptr;

struct StopAtExit {
    OrvPlatform::ConnmanClient& client;
    ~StopAtExit() { client.Stop(); }
};

} // namespace

ConnmanCommands::ConnmanCommands() : worker(std::make_unique<Worker>()) {
    forkedClient = &worker->client;
    pthread_atfork([] { forkedClient->BeforeFork(); }, [] { forkedClient->AfterForkInParent(); },
                   [] { forkedClient->AfterForkInChild(); });
}

ConnmanCommands::~ConnmanCommands() = default;

ConnmanCommands& ConnmanCommands::GetInstance() {
    // Never destroyed: other objects with static storage may still ask it while the process ends. Only its thread goes.
    static ConnmanCommands* instance = new ConnmanCommands;
    static StopAtExit stop{instance->worker->client};
    return *instance;
}

std::string ConnmanCommands::GetTopPriorityInterface() {
    return worker->client.TopPriorityInterface();
}

bool ConnmanCommands::SetTopPriorityInterface(const std::string& interfaceName) {
    if (worker->IsLeftToTheController("the order of the interfaces"))
        return true;
    return worker->client.SetTopPriorityInterface(interfaceName);
}

bool ConnmanCommands::SetDnsConfiguration(const std::string& interfaceName, const std::string& first,
                                          const std::string& second) {
    if (worker->IsLeftToTheController("the choice of name servers"))
        return true;
    std::vector<std::string> servers;
    for (const std::string& server : {first, second}) {
        if (!server.empty())
            servers.push_back(server);
    }
    return worker->client.SetDnsConfiguration(interfaceName, servers);
}

} // namespace CommonUtils::Networking
