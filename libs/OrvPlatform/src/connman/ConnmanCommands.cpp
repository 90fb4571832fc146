// SPDX-License-Identifier: Apache-2.0
#include "CommonUtils/Networking/ConnmanCommands.h"

#include "base/OncePerProcess.h"
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

OrvPlatform::OncePerProcess<ConnmanCommands> commandsOfTheProcess;
OrvPlatform::ConnmanClient* clientOfTheProcess = nullptr; // under its lock

struct StopAtExit {
    OrvPlatform::ConnmanClient& client;
    ~StopAtExit() { client.Stop(); }
};

void BeforeFork() {
    commandsOfTheProcess.BeforeFork();
    if (clientOfTheProcess != nullptr)
        clientOfTheProcess->BeforeFork();
}

void AfterForkInParent() {
    if (clientOfTheProcess != nullptr)
        clientOfTheProcess->AfterForkInParent();
    commandsOfTheProcess.AfterFork();
}

void AfterForkInChild() {
    if (clientOfTheProcess != nullptr)
        clientOfTheProcess->AfterForkInChild();
    commandsOfTheProcess.AfterFork();
}

// At load time, so that no thread can be making anything already. Settings and log have theirs before, so a fork takes
// this lock first and their locks second, as a thread does that makes the commands.
[[maybe_unused]] const int FORK_HANDLERS = pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);

} // namespace

ConnmanCommands::ConnmanCommands() : worker(std::make_unique<Worker>()) {
    clientOfTheProcess = &worker->client;
}

ConnmanCommands::~ConnmanCommands() = default;

ConnmanCommands& ConnmanCommands::GetInstance() {
    // Never destroyed: other objects with static storage may still ask it while the process ends. Only its thread goes.
    return commandsOfTheProcess.Get([] {
        auto* made = new ConnmanCommands;
        static const StopAtExit stop{made->worker->client};
        return made;
    });
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
