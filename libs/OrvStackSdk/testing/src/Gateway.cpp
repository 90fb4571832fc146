// SPDX-License-Identifier: Apache-2.0
#include "OrvStackSdk/Testing/Gateway.h"

#include "FakeBroker.h"
#include "FakeGateway.h"
#include "Kit.h"
#include "OrvStackClient.h"
#include "RouteWithMemory.h"
#include "VirtualTime.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <typeinfo>
#include <utility>

namespace OrvStackSdk::Testing {

namespace {

using OrvPlatformFake::FakeBroker;
using std::chrono::milliseconds;

constexpr int MOST_MESSAGES_AT_ONCE = 10000;

std::atomic<bool> exists{false};

// Where the shared library is linked too, and comes first, this has the kit's client win all the same.
[[gnu::used]] const std::type_info* const THE_KITS_CLIENT = &typeid(OrvStackClient);

void Reset() {
    OrvPlatformFake::FakeGateway::Reset();
    VirtualTime::Reset();
    ForgetReportedCloud();
    ForgetTheCloud();
    Kit& kit = Kit::Get();
    kit.schedule.Clear();
    kit.slow = false;
    kit.reconnectDelay = milliseconds(250);
    const std::lock_guard<std::mutex> lock(kit.publishedMutex);
    kit.published.clear();
}

void ObserveTheBroker() {
    FakeBroker::Get().SetTakenHook([](const FakeBroker::Taken& message) {
        if (message.client.empty())
            return;
        const std::lock_guard<std::mutex> lock(Kit::Get().publishedMutex);
        Kit::Get().published.push_back({VirtualTime::Now(), message.topic, message.payload, message.retained});
    });
    if (Kit::Get().deliveryThread)
        FakeBroker::Get().SetWaitingHook([] { Kit::Get().deliveryThread->Wake(); });
}

std::optional<milliseconds> Earlier(std::optional<milliseconds> one, std::optional<milliseconds> other) {
    if (!one || !other)
        return one ? one : other;
    return std::min(*one, *other);
}

std::optional<milliseconds> NextDue() {
    Kit& kit = Kit::Get();
    // Asking the broker takes its lock, which would order what a delivery thread does: only where it must be.
    return Earlier(kit.schedule.NextDue(), kit.slow ? FakeBroker::Get().NextDue() : std::nullopt);
}

} // namespace

Kit& Kit::Get() {
    static Kit kit;
    return kit;
}

void Kit::Deliver() {
    if (deliveryThread) {
        if (slow)
            deliveryThread->Wake();
        deliveryThread->AwaitIdle();
        return;
    }
    if (delivering)
        return;
    struct End {
        bool& flag;
        ~End() { flag = false; }
    } const end{delivering = true};
    for (int messages = 0; FakeBroker::Get().DeliverOne(); ++messages)
        if (messages == MOST_MESSAGES_AT_ONCE)
            throw std::logic_error("messages beget messages without end: does the application answer its own?");
}

Gateway::Gateway(const GatewayOptions& options) {
    if (exists.exchange(true))
        throw std::logic_error("there can be one OrvStackSdk::Testing::Gateway at a time");
    Reset();
    BeginJournal(static_cast<int>(options.logRecords));
    BeginStatusFiles(options.statusFolder);
    BeginConnectionManager();
    if (options.delivery == Delivery::OWN_THREAD)
        Kit::Get().deliveryThread = std::make_unique<DeliveryThread>();
    ObserveTheBroker();
}

Gateway::~Gateway() {
    FakeBroker::Get().SetWaitingHook(nullptr);
    Kit::Get().deliveryThread.reset();
    EndJournal();
    Reset();
    BeginStatusFiles("");
    exists = false;
}

void Gateway::Advance(milliseconds duration) {
    AdvanceUntil([] { return false; }, duration);
}

bool Gateway::AdvanceUntil(const std::function<bool()>& condition, milliseconds limit) {
    if (limit < milliseconds::zero())
        throw std::invalid_argument("time does not go backwards");
    Kit& kit = Kit::Get();
    const milliseconds end = VirtualTime::Now() + limit;
    for (;;) {
        kit.Deliver();
        if (condition())
            return true;
        const auto next = NextDue();
        if (!next || *next > end) {
            VirtualTime::Set(end);
            return false;
        }
        VirtualTime::Set(std::max(VirtualTime::Now(), *next));
        kit.Deliver();
        kit.schedule.RunNext(VirtualTime::Now());
    }
}

void Gateway::Settle() {
    Kit::Get().Deliver();
}

Gateway::Timer Gateway::Every(milliseconds interval, std::function<void()> step) {
    if (interval <= milliseconds::zero())
        throw std::invalid_argument("a step is to run again after some time, not at once");
    return Kit::Get().schedule.Add(VirtualTime::Now(),
                                   [interval, step = std::move(step)]() -> std::optional<milliseconds> {
                                       step();
                                       return interval;
                                   });
}

Gateway::Timer Gateway::Loop(std::function<milliseconds()> step) {
    return Kit::Get().schedule.Add(VirtualTime::Now(),
                                   [step = std::move(step)]() -> std::optional<milliseconds> { return step(); });
}

Gateway::Timer Gateway::After(milliseconds delay, std::function<void()> action) {
    return Kit::Get().schedule.Add(VirtualTime::Now() + delay,
                                   [action = std::move(action)]() -> std::optional<milliseconds> {
                                       action();
                                       return std::nullopt;
                                   });
}

void Gateway::Cancel(Timer timer) {
    Kit::Get().schedule.Cancel(timer);
}

milliseconds Gateway::Elapsed() const {
    return VirtualTime::Now();
}

std::chrono::system_clock::time_point Gateway::WallClock() const {
    return VirtualTime::WallClock();
}

void Gateway::SetWallClock(std::chrono::system_clock::time_point time) {
    VirtualTime::SetWallClock(time);
}

std::string Gateway::StatusFile() const {
    return StatusFileContent("new_enterprise_statuses.csv");
}

std::string Gateway::ErrorFile() const {
    return StatusFileContent("new_enterprise_errors.csv");
}

} // namespace OrvStackSdk::Testing
