// SPDX-License-Identifier: Apache-2.0
#include "FakeConnman.h"

#include "CommonUtils/Networking/ConnmanCommands.h"
#include "Journal.h"

#include <algorithm>

namespace {

std::vector<std::string> order{"eth0", "wwan0"};
bool obedient = true;
std::function<void(const std::string&)> commandHook;

void Begin(const std::string& command) {
    OrvPlatformFake::Journal::Add(command);
    if (commandHook)
        commandHook(command);
}

} // namespace

namespace CommonUtils::Networking {

class ConnmanCommands::Worker {};

ConnmanCommands::ConnmanCommands() = default;
ConnmanCommands::~ConnmanCommands() = default;

ConnmanCommands& ConnmanCommands::GetInstance() {
    static ConnmanCommands instance;
    return instance;
}

std::string ConnmanCommands::GetTopPriorityInterface() {
    return order.empty() ? "" : order.front();
}

bool ConnmanCommands::SetTopPriorityInterface(const std::string& interfaceName) {
    Begin(OrvPlatformFake::Entry::TopPriority(interfaceName));
    const auto service = std::find(order.begin(), order.end(), interfaceName);
    if (service == order.end())
        return false;
    if (obedient)
        std::rotate(order.begin(), service, service + 1);
    return true;
}

bool ConnmanCommands::SetDnsConfiguration(const std::string& interfaceName, const std::string& first,
                                          const std::string& second) {
    Begin(OrvPlatformFake::Entry::Dns(interfaceName, first, second));
    return true;
}

} // namespace CommonUtils::Networking

namespace OrvPlatformFake {

FakeConnman& FakeConnman::Get() {
    static FakeConnman connman;
    return connman;
}

void FakeConnman::Reset() {
    order = {"eth0", "wwan0"};
    obedient = true;
    commandHook = nullptr;
}

void FakeConnman::SetOrder(std::vector<std::string> interfaces) {
    order = std::move(interfaces);
}

std::vector<std::string> FakeConnman::Order() const {
    return order;
}

void FakeConnman::SetObedient(bool isObedient) {
    obedient = isObedient;
}

void FakeConnman::SetCommandHook(std::function<void(const std::string& line)> hook) {
    commandHook = std::move(hook);
}

} // namespace OrvPlatformFake
