// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "DeliveryThread.h"
#include "OrvStackSdk/Testing/Broker.h"
#include "Schedule.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace OrvStackSdk::Testing {

/// What stands behind the one gateway. The library is process-wide in its platform, so this is too.
struct Kit {
    Schedule schedule;
    std::unique_ptr<DeliveryThread> deliveryThread; // null: messages are delivered on the test's thread
    bool delivering = false;                        // on the test's thread

    std::atomic<bool> slow{false}; // messages have a latency
    std::chrono::milliseconds reconnectDelay{250};

    std::mutex publishedMutex;
    std::vector<Broker::Message> published;

    static Kit& Get();

    /// Delivers what is due. @throws std::logic_error when messages beget messages without end
    void Deliver();

    /// Connections that were lost come back in a while, if the broker lets them.
    void ReconnectLater();
};

/// Adds a line to the journal. Callable from any thread, with locks held too.
void AddToJournal(const std::string& line);
/// An empty journal that takes what the fakes write down, log records as asked for.
void BeginJournal(int lowestLogLevel);
void EndJournal();

void BeginStatusFiles(const std::string& folder);
std::string StatusFileContent(const std::string& name);

void BeginConnectionManager();
void ForgetTheCloud();

} // namespace OrvStackSdk::Testing
