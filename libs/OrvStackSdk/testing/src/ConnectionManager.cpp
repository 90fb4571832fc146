// SPDX-License-Identifier: Apache-2.0
#include "OrvStackSdk/Testing/ConnectionManager.h"

#include "FakeConnman.h"
#include "Kit.h"
#include "VirtualTime.h"

#include <algorithm>
#include <atomic>

namespace OrvStackSdk::Testing {

namespace {

using OrvPlatformFake::FakeConnman;

std::atomic<bool> refuses{false};
std::atomic<std::chrono::milliseconds::rep> delayMs{0};

void MoveToTop(const std::string& interfaceName) {
    auto order = FakeConnman::Get().Order();
    const auto place = std::find(order.begin(), order.end(), interfaceName);
    if (refuses || place == order.end())
        return;
    std::rotate(order.begin(), place, place + 1);
    FakeConnman::Get().SetOrder(order);
}

/// What the fake does by itself, and what is left to a timer.
void Arrange() {
    FakeConnman::Get().SetObedient(!refuses && delayMs == 0);
}

} // namespace

void BeginConnectionManager() {
    refuses = false;
    delayMs = 0;
    FakeConnman::Get().SetCommandHook([](const std::string& line) {
        const std::string order = "connman top ";
        if (refuses || delayMs == 0 || line.compare(0, order.size(), order) != 0)
            return;
        const auto due = VirtualTime::Now() + std::chrono::milliseconds(delayMs);
        Kit::Get().schedule.Add(due, [interfaceName = line.substr(order.size())] {
            MoveToTop(interfaceName);
            return std::nullopt;
        });
    });
}

void ConnectionManager::Appear(const std::string& interfaceName) {
    auto order = FakeConnman::Get().Order();
    if (std::find(order.begin(), order.end(), interfaceName) == order.end())
        order.push_back(interfaceName);
    FakeConnman::Get().SetOrder(order);
    AddToJournal("interface " + interfaceName + " appears");
}

void ConnectionManager::Disappear(const std::string& interfaceName) {
    auto order = FakeConnman::Get().Order();
    order.erase(std::remove(order.begin(), order.end(), interfaceName), order.end());
    FakeConnman::Get().SetOrder(order);
    AddToJournal("interface " + interfaceName + " disappears");
}

std::vector<std::string> ConnectionManager::Order() const {
    return FakeConnman::Get().Order();
}

std::string ConnectionManager::Top() const {
    const auto order = Order();
    return order.empty() ? "" : order.front();
}

void ConnectionManager::RefuseToMove(bool refuse) {
    refuses = refuse;
    Arrange();
}

void ConnectionManager::SetDelay(std::chrono::milliseconds delay) {
    delayMs = delay.count();
    Arrange();
}

} // namespace OrvStackSdk::Testing
