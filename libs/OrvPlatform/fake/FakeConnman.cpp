// SPDX-License-Identifier: Apache-2.0
#include "FakeConnman.h"

#include "CommonUtils/Networking/ConnmanCommands.h"
#include "Journal.h"

#include <algorithm>
#include <mutex>

namespace {

std::mutex mutex; // guards what follows
std::vector<std::string> order{"eth0", "wwan0"};
bool obedient = true;
std::function<void(const std::string&)> commandHook;

void Begin(const std::string& command) {
    OrvPlatformFake::Journal::Add(command);
    std::function<void(const std::string&)> hook;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        hook = commandHook;
    }
    if (hook)
        hook(command);
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
    const std::lock_guard<std::mutex> lock(mutex);
    return order.empty() ? "" : order.front();
}

bool ConnmanCommands::SetTopPriorityInterface(const std::string& interfaceName) {
    Begin(OrvPlatformFake::Entry::TopPriority(interfaceName));
    const std::lock_guard<std::mutex> lock(mutex);
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
    const std::lock_guard<std::mutex> lock(mutex);
    order = {"eth0", "wwan0"};
    obedient = true;
    commandHook = nullptr;
}

void FakeConnman::SetOrder(std::vector<std::string> interfaces) {
    const std::lock_guard<std::mutex> lock(mutex);
    order = std::move(interfaces);
}

std::vector<std::string> FakeConnman::Order() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return order;
}

void FakeConnman::SetObedient(bool isObedient) {
    const std::lock_guard<std::mutex> lock(mutex);
    obedient = isObedient;
}

void FakeConnman::SetCommandHook(std::function<void(const std::string& line)> hook) {
    const std::lock_guard<std::mutex> lock(mutex);
    commandHook = std::move(hook);
}

} // namespace OrvPlatformFake
