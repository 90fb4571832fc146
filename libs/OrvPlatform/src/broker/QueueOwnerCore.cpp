// SPDX-License-Identifier: Apache-2.0
#include "broker/QueueOwnerCore.h"

#include "base/IpAddress.h"
#include "broker/ClientIdSuffix.h"
#include "broker/MqttText.h"
#include "broker/TopicFilter.h"

#include <mosquitto.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <random>
#include <system_error>
#include <utility>

namespace QUILMQTT {

using namespace std::chrono_literals;
using OrvPlatform::LastWill;
using OrvPlatform::MosquittoClient;
using OrvPlatform::MosquittoErrorText;
using OrvPlatform::MutexLock;
using OrvPlatform::Unlocked;

namespace {

constexpr auto CONNECT_LIMIT = 3s;
constexpr auto DISCONNECT_LIMIT = 800ms;
constexpr auto DROP_LIMIT = 200ms;

// A name would have to be looked up, and a dead name server holds a look-up for many seconds. Empty for a name.
std::string BrokerAddress(const OrvPlatform::GatewayConfig::Broker& settings) {
    const std::string& host = settings.host;
    if (!settings.socket.empty())
        return settings.socket;
    if (host == "localhost")
        return "127.0.0.1";
    return OrvPlatform::IsIpAddress(host) ? host : std::string();
}

} // namespace

QueueOwner::Core::Core(QueueOwner& queueOwner, const std::string& id, const OrvPlatform::GatewayConfig& config)
    : settings(config.broker),
      clientId(id + OrvPlatform::ClientIdSuffix(settings.clientIdSuffix, id, config.program)),
      endpoint(settings.socket.empty() ? settings.host + ":" + std::to_string(settings.port) : settings.socket),
      foreignTopics(config.IsController() ? std::vector<std::string>() : config.gateway.topics),
      process(getpid()),
      log(clientId),
      owner(queueOwner),
      link(static_cast<std::uint32_t>(std::hash<std::string>{}(clientId)) ^ std::random_device{}()),
      silence(settings.keepAlive),
      announced(settings.maxOutstandingBytes),
      outstanding(settings.maxOutstandingBytes) {
    waker.Open();
}

QueueOwner::Core::~Core() = default;

bool QueueOwner::Core::Connect(const std::optional<LastWill>& will) {
    if (IsInherited()) {
        log.Write({Severity::WARNING, "cannot connect to " + endpoint +
                                          ": this object was made before a fork and belongs to the parent process; "
                                          "make another one"});
        return false;
    }
    if (will && IsLeftToTheController(will->topic))
        return Connect(std::nullopt);
    const Time deadline = std::chrono::steady_clock::now() + CONNECT_LIMIT;
    MutexLock lock(mutex);
    const bool wasUp = link.IsUp();
    auto former = TakeClient();
    const unsigned mine = generation;
    {
        const Unlocked unlocked(mutex);
        if (wasUp)
            former->Disconnect(std::min(deadline, std::chrono::steady_clock::now() + DISCONNECT_LIMIT));
        former.reset();
    }

    // Whoever called Connect or Disconnect meanwhile has the last word.
    if (generation == mine && TryOpen(will, deadline))
        AwaitAnswer(mine, deadline);
    const bool connected = generation == mine && link.IsUp();
    if (generation == mine && !connected) {
        Log(Severity::WARNING, [this]() ORV_REQUIRES(mutex) {
            return "cannot connect to " + endpoint + ": " + (failure.empty() ? "out of memory" : failure);
        });
        TakeClient().reset();
    }
    RetireThread();
    WriteLog();
    return connected;
}

bool QueueOwner::Core::TryOpen(const std::optional<LastWill>& will, Time deadline) noexcept {
    try {
        return Open(will, deadline);
    } catch (const std::bad_alloc&) {
        failure.clear();
        return false;
    }
}

bool QueueOwner::Core::Open(const std::optional<LastWill>& will, Time deadline) {
    deliveryStopped = stopWaiters > 0; // a callback that connects does not undo the stop that waits for it
    link.Prepare();
    failure = "no answer within 3 s";
    announced.BeginSession(will ? will->topic : std::string());

    const std::string address = BrokerAddress(settings);
    if (address.empty()) {
        failure = "names are not looked up; set [broker] host to an address";
        return false;
    }
    const std::uint16_t port = settings.socket.empty() ? settings.port : 0;
    const OrvPlatform::MosquittoSettings clientSettings{clientId,          address,           port, settings.keepAlive,
                                                        settings.username, settings.password, will};
    if (const std::string fault = OrvPlatform::FaultIn(clientSettings); !fault.empty()) {
        failure = fault;
        return false;
    }
    if (!waker.Open()) {
        failure = "no descriptor left";
        return false;
    }
    int error = MOSQ_ERR_SUCCESS;
    client = MosquittoClient::Make(clientSettings, *this, error);
    if (!client) {
        failure = "the client library refuses the settings: " + MosquittoErrorText(error, errno);
        return false;
    }
    error = client->BeginConnect();
    if (error != MOSQ_ERR_SUCCESS) {
        failure = MosquittoErrorText(error, errno);
        return false;
    }
    link.ConnectBegun(deadline);
    changed.notify_all();
    return StartThread();
}

// A delivery thread that is in a callback, or held up by the log, is not waited for: this one does its work meanwhile.
void QueueOwner::Core::AwaitAnswer(unsigned asked, Time deadline) {
    ++connectWaiters;
    while (generation == asked && link.Current() == StateMachine::State::CONNECTING &&
           std::chrono::steady_clock::now() < deadline) {
        if (OnDeliveryThread())
            RunOnce();
        else if (!serving)
            ServeForDeliveryThread(deadline);
        else
            changed.wait_until(mutex, deadline);
    }
    --connectWaiters;
}

bool QueueOwner::Core::Disconnect() {
    if (IsInherited())
        return false;
    MutexLock lock(mutex);
    const bool wasUp = link.IsUp();
    auto former = TakeClient();
    if (wasUp)
        Log(Severity::INFO, [this] { return "disconnecting from " + endpoint; });
    {
        const Unlocked unlocked(mutex);
        if (wasUp)
            former->Disconnect(std::chrono::steady_clock::now() + DISCONNECT_LIMIT);
        former.reset();
    }
    RetireThread();
    WriteLog();
    return wasUp;
}

bool QueueOwner::Core::Subscribe(const std::string& filter, int qos) {
    // The client library would send an empty filter, and the broker hang up on it: again after each reconnection.
    if (IsInherited() || OrvPlatform::FaultOfText(filter) != nullptr)
        return false;
    MutexLock lock(mutex);
    if (!link.IsUp())
        return false;
    Subscription asked;
    try {
        asked = {filter, qos, 0};
        subscriptions.reserve(subscriptions.size() + 1);
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (client->Subscribe(filter, qos, asked.messageId) != MOSQ_ERR_SUCCESS)
        return false;
    const auto known =
        std::find_if(subscriptions.begin(), subscriptions.end(), [&](const auto& one) { return one.filter == filter; });
    if (known == subscriptions.end())
        subscriptions.push_back(std::move(asked));
    else
        *known = std::move(asked);
    Flush();
    return true;
}

bool QueueOwner::Core::IsLeftToTheController(const std::string& topic) noexcept {
    if (!OrvPlatform::MatchesAny(foreignTopics, topic))
        return false;
    log.WriteLeftToController(topic);
    return true;
}

void QueueOwner::Core::StopDelivery() {
    if (IsInherited())
        return;
    MutexLock lock(mutex);
    deliveryStopped = true;
    ++stopWaiters;
    while (delivering && !OnDeliveryThread())
        changed.wait(mutex);
    --stopWaiters;
}

void QueueOwner::Core::Abandon() {
    if (IsInherited()) {
        Keep();
        return;
    }
    MutexLock lock(mutex);
    const bool wasUp = link.IsUp();
    auto former = TakeClient();
    std::thread last = std::move(thread);
    {
        const Unlocked unlocked(mutex);
        if (wasUp)
            former->DropConnection(std::chrono::steady_clock::now() + DROP_LIMIT);
        former.reset();
        if (last.joinable() && last.get_id() == std::this_thread::get_id())
            last.detach();
        else if (last.joinable())
            last.join();
    }
    WriteLog();
}

bool QueueOwner::Core::IsInherited() const noexcept {
    return getpid() != process;
}

void QueueOwner::Core::Keep() noexcept {
    // A list, so that a leak checker has nothing to say. Made of its members: there may be no memory, and several
    // threads may come at the same time.
    static std::atomic<Core*> lastKept{nullptr};
    kept = shared_from_this();
    keptBefore = lastKept.load();
    while (!lastKept.compare_exchange_weak(keptBefore, this)) {
    }
}

std::unique_ptr<MosquittoClient> QueueOwner::Core::TakeClient() {
    ++generation;
    link.Close();
    changed.notify_all();
    queuedEvents.Clear();
    outstanding.Clear();
    subscriptions.clear();
    refusedForBytes = 0;
    congestionEnded = false;
    Wake();
    return std::move(client);
}

bool QueueOwner::Core::OnDeliveryThread() const {
    return running && threadId == std::this_thread::get_id();
}

bool QueueOwner::Core::StartThread() {
    if (running)
        return true;
    if (thread.joinable())
        thread.join(); // it has left Run, so this does not wait
    const unsigned number = ++threadNumber;
    try {
        thread = std::thread([self = shared_from_this(), number] { self->Run(number); });
    } catch (const std::system_error& error) {
        failure = std::string("no thread to be had: ") + error.what();
        return false;
    }
    running = serving = true;
    threadId = thread.get_id();
    return true;
}

// The thread ends by itself once the connection is given up. It is waited for, unless an application's callback would
// be waited for with it; then the next StartThread or Abandon does.
void QueueOwner::Core::RetireThread() {
    if (link.Current() != StateMachine::State::CLOSED || delivering || OnDeliveryThread())
        return;
    running = false;
    std::thread ending = std::move(thread);
    const Unlocked unlocked(mutex);
    if (ending.joinable())
        ending.join();
}

void QueueOwner::Core::Wake() const noexcept {
    waker.Wake();
}

void QueueOwner::Core::WriteLog() noexcept {
    if (records.IsEmpty())
        return;
    const auto written = records.TakeAll();
    {
        const Unlocked unlocked(mutex);
        log.WriteAll(written);
    }
    lastClockReading = std::chrono::steady_clock::now();
}

} // namespace QUILMQTT
