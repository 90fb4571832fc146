// SPDX-License-Identifier: Apache-2.0
#include "CommonUtils/Networking/ConnmanCommands.h"

#include "ConnmanLink.h"
#include "ConnmanScripted.h"
#include "GatewayConfig.h"

#include <pthread.h>

namespace CommonUtils::Networking {

namespace {

ConnmanCommands::Worker* forkedWorker = nullptr;

std::unique_ptr<ConnmanCommands::Worker> MakeWorker() {
    const OrvPlatform::GatewayConfig::Connman& config = OrvPlatform::Config().connman;
    if (config.scripted)
        return std::make_unique<OrvPlatform::ConnmanScripted>();
    return std::make_unique<OrvPlatform::ConnmanLink>(OrvPlatform::ConnmanLink::BusAddress(config.busAddress));
}

struct StopAtExit {
    ConnmanCommands::Worker& worker;
    ~StopAtExit() { worker.Stop(); }
};

} // namespace

ConnmanCommands::ConnmanCommands() : worker(MakeWorker()) {
    forkedWorker = worker.get();
    pthread_atfork([] { forkedWorker->BeforeFork(); }, [] { forkedWorker->AfterForkInParent(); },
                   [] { forkedWorker->AfterForkInChild(); });
}

ConnmanCommands::~ConnmanCommands() = default;

ConnmanCommands& ConnmanCommands::GetInstance() {
    // Never destroyed: other objects with static storage may still ask it while the process ends. Only its thread goes.
    static ConnmanCommands* instance = new ConnmanCommands;
    static StopAtExit stop{*instance->worker};
    return *instance;
}

std::string ConnmanCommands::GetTopPriorityInterface() {
    return worker->TopPriorityInterface();
}

bool ConnmanCommands::SetTopPriorityInterface(const std::string& interfaceName) {
    return worker->SetTopPriorityInterface(interfaceName);
}

bool ConnmanCommands::SetDnsConfiguration(const std::string& interfaceName, const std::string& first,
                                          const std::string& second) {
    std::vector<std::string> servers;
    for (const std::string& server : {first, second}) {
        if (!server.empty())
            servers.push_back(server);
    }
    return worker->SetDnsConfiguration(interfaceName, servers);
}

} // namespace CommonUtils::Networking
