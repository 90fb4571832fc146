// SPDX-License-Identifier: Apache-2.0
#include "QueueOwnerCore.h"

#include "ClientIdSuffix.h"
#include "TopicFilter.h"

#include <arpa/inet.h>
#include <mosquitto.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <random>
#include <system_error>

namespace QUILMQTT {

using namespace std::chrono_literals;
using OrvPlatform::LastWill;
using OrvPlatform::MosquittoClient;
using OrvPlatform::MosquittoErrorText;
using OrvPlatform::MutexLock;
using OrvPlatform::OutstandingPublications;

namespace {

constexpr auto CONNECT_LIMIT = 3s;
constexpr auto GOOD_BYE_LIMIT = 800ms;
constexpr auto BREAK_OFF_LIMIT = 200ms;

// A name would have to be looked up, and a dead name server holds a look-up for many seconds. Empty for a name.
std::string BrokerAddress(const OrvPlatform::GatewayConfig::Broker& settings) {
    const std::string& host = settings.host;
    if (!settings.socket.empty())
        return settings.socket;
    if (host == "localhost")
        return "127.0.0.1";
    in6_addr address{};
    const bool isAddress =
        inet_pton(AF_INET, host.c_str(), &address) == 1 || inet_pton(AF_INET6, host.c_str(), &address) == 1;
    return isAddress ? host : std::string();
}

bool HoldsNul(const std::string& text) {
    return text.find('\0') != std::string::npos;
}

int StatusOf(int error) {
    switch (error) {
    case MOSQ_ERR_SUCCESS:
        return QueueOwner::HANDED_OVER;
    case MOSQ_ERR_INVAL:
    case MOSQ_ERR_MALFORMED_UTF8:
        return QueueOwner::MALFORMED_TOPIC;
    default:
        return QueueOwner::FAILED;
    }
}

} // namespace

QueueOwner::Core::Core(QueueOwner& queueOwner, const std::string& id, const OrvPlatform::GatewayConfig& config)
    : settings(config.broker),
      clientId(id + OrvPlatform::ClientIdSuffix(settings.clientIdSuffix, id, config.program)),
      place(settings.socket.empty() ? settings.host + ":" + std::to_string(settings.port) : settings.socket),
      foreignTopics(config.IsController() ? std::vector<std::string>() : config.gateway.topics),
      wakeUp(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      logger("QueueOwner", 0),
      owner(queueOwner),
      backoff(static_cast<std::uint32_t>(std::hash<std::string>{}(clientId)) ^ std::random_device{}()),
      outstanding(settings.maxOutstandingBytes) {}

QueueOwner::Core::~Core() {
    if (wakeUp >= 0)
        close(wakeUp);
}

bool QueueOwner::Core::Connect(const std::optional<LastWill>& will) {
    if (will && IsLeftToTheController(will->topic))
        return Connect(std::nullopt);
    const Time deadline = std::chrono::steady_clock::now() + CONNECT_LIMIT;
    MutexLock lock(mutex);
    const bool wasUp = link == Link::UP;
    auto former = TakeClient();
    const unsigned mine = generation;
    mutex.unlock();
    if (wasUp)
        former->SayGoodBye(std::min(deadline, std::chrono::steady_clock::now() + GOOD_BYE_LIMIT));
    former.reset();
    mutex.lock();

    // Whoever called Connect or Disconnect meanwhile has the last word.
    if (generation == mine && Open(will, deadline))
        AwaitAnswer(deadline);
    const bool connected = generation == mine && link == Link::UP;
    if (generation == mine && !connected) {
        Say(Severity::WARNING, "cannot connect to " + place + ": " + failure);
        TakeClient().reset();
    }
    RetireThread();
    WriteLog();
    return connected;
}

bool QueueOwner::Core::Open(const std::optional<LastWill>& will, Time deadline) {
    deliveryStopped = stopsAwaited > 0; // a callback that connects does not undo the stop that waits for it
    attemptEnds = deadline;
    refusal = refusalSaid = 0;
    failure = "no answer within 3 s";
    announced.SetWillTopic(will ? will->topic : std::string());

    const std::string address = BrokerAddress(settings);
    if (address.empty()) {
        failure = "names are not looked up; set [broker] host to an address";
        return false;
    }
    if (HoldsNul(clientId) || (will && HoldsNul(will->topic))) {
        failure = "client id or will topic holds a NUL";
        return false;
    }
    if (wakeUp < 0) {
        failure = "no descriptor left when this client was made";
        return false;
    }
    int error = MOSQ_ERR_SUCCESS;
    const std::uint16_t port = settings.socket.empty() ? settings.port : 0;
    client = MosquittoClient::Make(
        {clientId, address, port, settings.keepAlive, settings.username, settings.password, will}, *this, error);
    if (!client) {
        failure = "client id, user name, will or keep-alive refused: " + MosquittoErrorText(error, errno);
        return false;
    }
    error = client->BeginConnect();
    if (error != MOSQ_ERR_SUCCESS) {
        failure = MosquittoErrorText(error, errno);
        return false;
    }
    SetLink(Link::CONNECTING);
    return StartThread();
}

void QueueOwner::Core::AwaitAnswer(Time deadline) {
    const bool turning = OnDeliveryThread();
    while (link == Link::CONNECTING && std::chrono::steady_clock::now() < deadline) {
        if (turning)
            Turn();
        else
            changed.wait_until(mutex, deadline);
    }
}

bool QueueOwner::Core::Disconnect() {
    MutexLock lock(mutex);
    const bool wasUp = link == Link::UP;
    auto former = TakeClient();
    if (wasUp)
        Say(Severity::INFO, "disconnecting from " + place);
    mutex.unlock();
    if (wasUp)
        former->SayGoodBye(std::chrono::steady_clock::now() + GOOD_BYE_LIMIT);
    former.reset();
    mutex.lock();
    RetireThread();
    WriteLog();
    return wasUp;
}

bool QueueOwner::Core::Subscribe(const std::string& filter, int qos) {
    // The client library would send an empty filter, and the broker hang up on it: again after each reconnection.
    if (filter.empty() || HoldsNul(filter))
        return false;
    MutexLock lock(mutex);
    int messageId = 0;
    if (link != Link::UP || client->Subscribe(filter, qos, messageId) != MOSQ_ERR_SUCCESS)
        return false;
    const Subscription asked{filter, qos, messageId};
    const auto known =
        std::find_if(subscriptions.begin(), subscriptions.end(), [&](const auto& one) { return one.filter == filter; });
    if (known == subscriptions.end())
        subscriptions.push_back(asked);
    else
        *known = asked;
    Flush();
    return true;
}

int QueueOwner::Core::Publish(const std::string& topic, const std::string& payload, bool retained, bool assured) {
    if (HoldsNul(topic))
        return MALFORMED_TOPIC;
    if (IsLeftToTheController(topic))
        return HANDED_OVER;
    const std::size_t cost = OutstandingPublications::Cost(topic, payload);
    if (cost > settings.maxOutstandingBytes)
        return PAYLOAD_TOO_LARGE;
    MutexLock lock(mutex);
    if (link != Link::UP)
        return NOT_CONNECTED;
    if (!outstanding.Admits(cost)) {
        RefuseForBytes();
        return OUTSTANDING_FULL;
    }
    const int status = Send(topic, payload, retained, assured);
    if (status != HANDED_OVER)
        return status;
    announced.Note(topic, payload, retained, assured);
    Flush();
    return HANDED_OVER;
}

bool QueueOwner::Core::IsLeftToTheController(const std::string& topic) {
    if (!OrvPlatform::MatchesAny(foreignTopics, topic))
        return false;
    logger.Debug() << clientId << ": " << topic << " is left to the gateway's controller, nothing is published";
    return true;
}

// Sends from here when the socket has room; otherwise the delivery thread sends when it has.
void QueueOwner::Core::Flush() {
    client->Write();
    if (client->WantsWrite())
        Wake();
}

int QueueOwner::Core::Send(const std::string& topic, const std::string& payload, bool retained, bool assured) {
    int messageId = 0;
    const int error = client->Publish(topic, payload, assured, retained, messageId);
    if (error == MOSQ_ERR_SUCCESS)
        outstanding.Add(messageId,
                        {assured ? topic : std::string(), OutstandingPublications::Cost(topic, payload), assured});
    return StatusOf(error);
}

// The delivery thread writes the record: a publication must not wait for the log.
void QueueOwner::Core::RefuseForBytes() {
    if (refusedForBytes++ != 0)
        return;
    Say(Severity::WARNING, "the broker does not keep up: " + std::to_string(outstanding.Bytes()) +
                               " bytes are outstanding, publications are refused until it takes some; [broker] "
                               "max_outstanding_bytes is " +
                               std::to_string(settings.maxOutstandingBytes));
}

void QueueOwner::Core::StopDelivery() {
    MutexLock lock(mutex);
    deliveryStopped = true;
    ++stopsAwaited;
    while (delivering && !OnDeliveryThread())
        changed.wait(mutex);
    --stopsAwaited;
}

void QueueOwner::Core::Abandon() {
    MutexLock lock(mutex);
    const bool wasUp = link == Link::UP;
    auto former = TakeClient();
    std::thread last = std::move(thread);
    mutex.unlock();
    if (wasUp)
        former->BreakOff(std::chrono::steady_clock::now() + BREAK_OFF_LIMIT);
    former.reset();
    if (last.joinable() && last.get_id() == std::this_thread::get_id())
        last.detach();
    else if (last.joinable())
        last.join();
    mutex.lock();
    WriteLog();
}

std::unique_ptr<MosquittoClient> QueueOwner::Core::TakeClient() {
    ++generation;
    SetLink(Link::CLOSED);
    inbox.Clear();
    outstanding.Clear();
    subscriptions.clear();
    refusedForBytes = 0;
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
    running = true;
    threadId = thread.get_id();
    return true;
}

// The thread ends by itself once the connection is given up. It is waited for, unless an application's callback would
// be waited for with it; then the next StartThread or Abandon does.
void QueueOwner::Core::RetireThread() {
    if (link != Link::CLOSED || delivering || OnDeliveryThread())
        return;
    running = false;
    std::thread ending = std::move(thread);
    mutex.unlock();
    if (ending.joinable())
        ending.join();
    mutex.lock();
}

void QueueOwner::Core::SetLink(Link next) {
    link = next;
    changed.notify_all();
}

void QueueOwner::Core::Wake() const {
    const std::uint64_t one = 1;
    // Full means that it is readable already.
    [[maybe_unused]] const ssize_t written = write(wakeUp, &one, sizeof one);
}

void QueueOwner::Core::Say(Severity severity, const std::string& text) {
    records.emplace_back(severity, text);
}

void QueueOwner::Core::WriteLog() {
    if (records.empty())
        return;
    std::vector<std::pair<Severity, std::string>> written;
    written.swap(records);
    mutex.unlock();
    for (const auto& [severity, text] : written) {
        switch (severity) {
        case Severity::DEBUG:
            logger.Debug() << clientId << ": " << text;
            break;
        case Severity::INFO:
            logger.Info() << clientId << ": " << text;
            break;
        case Severity::WARNING:
            logger.Warning() << clientId << ": " << text;
            break;
        case Severity::ERROR:
            logger.Error() << clientId << ": " << text;
            break;
        }
    }
    mutex.lock();
}

} // namespace QUILMQTT
