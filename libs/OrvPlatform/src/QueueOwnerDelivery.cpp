// SPDX-License-Identifier: Apache-2.0
// What the delivery thread does: it moves bytes, keeps the connection up and calls the application.
#include "QueueOwnerCore.h"

#include <mosquitto.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>

namespace QUILMQTT {

using namespace std::chrono_literals;
using OrvPlatform::Event;
using OrvPlatform::MosquittoErrorText;
using OrvPlatform::MutexLock;

namespace {

// A broker that is alive answers at once. A frozen one keeps every attempt in its backlog and wades through them when
// it thaws, so attempts are given time rather than repeated.
constexpr auto RECONNECT_LIMIT = 10s;
constexpr std::chrono::milliseconds KEEP_ALIVE_CHECK = 1s;

std::chrono::milliseconds Until(std::chrono::steady_clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return std::max(left, std::chrono::milliseconds(0));
}

std::string Seconds(std::chrono::steady_clock::duration duration) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", std::chrono::duration<double>(duration).count());
    return text;
}

} // namespace

void QueueOwner::Core::Run(unsigned ownNumber) {
    MutexLock lock(mutex);
    while (threadNumber == ownNumber && link != Link::CLOSED) {
        Turn();
        WriteLog();
        if (threadNumber == ownNumber)
            Deliver();
    }
    if (threadNumber == ownNumber)
        running = false;
}

std::chrono::milliseconds QueueOwner::Core::PollLimit() const {
    switch (link) {
    case Link::UP:
        return KEEP_ALIVE_CHECK;
    case Link::PAUSING:
        return Until(pauseEnds);
    case Link::CONNECTING:
    case Link::RECONNECTING:
        return Until(attemptEnds);
    case Link::CLOSED:
        break;
    }
    return 0ms;
}

void QueueOwner::Core::Turn() {
    const unsigned seen = generation;
    const int socket = client->Socket();
    const short wanted = socket >= 0 && client->WantsWrite() ? POLLIN | POLLOUT : POLLIN;
    pollfd waits[] = {{wakeUp, POLLIN, 0}, {socket, wanted, 0}};
    const int limit = static_cast<int>(PollLimit().count());

    mutex.unlock();
    poll(waits, 2, limit);
    mutex.lock();

    // While the lock was away another client may have taken this one's place, its descriptor's number even; and another
    // thread this one's, for which the wake-up may be meant.
    if (seen != generation)
        return;
    if (waits[0].revents != 0) {
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t drained = read(wakeUp, &count, sizeof count);
    }
    ServeSocket(waits[1].revents);
    Advance(std::chrono::steady_clock::now());
}

void QueueOwner::Core::ServeSocket(short ready) {
    if ((ready & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) != 0)
        client->Read();
    if ((ready & POLLOUT) != 0)
        client->Write();
    if (restoreDue && link == Link::UP)
        Restore();
}

void QueueOwner::Core::Advance(Time now) {
    if (link == Link::UP && now - keepAliveChecked >= KEEP_ALIVE_CHECK) {
        keepAliveChecked = now;
        client->KeepAlive();
    } else if (link == Link::RECONNECTING && now >= attemptEnds) {
        // The socket stays until the next attempt: an answer that comes late is welcome.
        FailAttempt("no answer within 10 s");
    } else if (link == Link::PAUSING && now >= pauseEnds) {
        ++attempt;
        refusal = 0;
        attemptEnds = now + RECONNECT_LIMIT;
        SetLink(Link::RECONNECTING);
        const int error = client->BeginReconnect();
        if (error != MOSQ_ERR_SUCCESS)
            FailAttempt(MosquittoErrorText(error, errno));
    }
}

void QueueOwner::Core::OnAnswer(int code) noexcept {
    if (link == Link::UP)
        return;
    refusal = code;
    if (code != 0)
        return; // OnLost follows
    const bool again = link != Link::CONNECTING;
    const Time now = std::chrono::steady_clock::now();
    evictions.Accepted(now, attempt);
    if (!evictions.Suspects())
        backoff.Reset();
    SetLink(Link::UP);
    restoreDue = again;
    if (!again) {
        inbox.Add().kind = Event::Kind::CONNECTED;
        Say(Severity::INFO, "connected to " + place);
    }
}

void QueueOwner::Core::OnLost(int error) noexcept {
    const int systemError = errno;
    const std::string reason = refusal != 0 ? "refused by the broker: " + OrvPlatform::RefusalText(refusal)
                                            : MosquittoErrorText(error, systemError);
    switch (link) {
    case Link::CONNECTING:
        failure = reason;
        SetLink(Link::CLOSED);
        break;
    case Link::UP:
        LoseConnection(error, systemError);
        break;
    case Link::RECONNECTING:
        FailAttempt(reason);
        break;
    case Link::PAUSING: // the socket of a late answer
    case Link::CLOSED:
        break;
    }
}

void QueueOwner::Core::LoseConnection(int error, int systemError) {
    const Time now = std::chrono::steady_clock::now();
    evictions.Lost(now, error == MOSQ_ERR_CONN_LOST);
    outstanding.DropUnassured();
    lostAt = now;
    attempt = 0;
    pauseEnds = now + backoff.Next();
    failure = MosquittoErrorText(error, systemError); // for a Connect that has not yet seen that it was accepted
    SetLink(Link::PAUSING);
    Wake();

    if (!evictions.Suspects()) {
        evictionSaid = false;
        Say(Severity::WARNING, "lost the connection to " + place + ": " + failure + "; reconnecting");
    } else if (!evictionSaid) {
        evictionSaid = true;
        Say(Severity::ERROR,
            "the broker keeps throwing this client off: another client uses the same id; leave [broker] "
            "client_id_suffix out, or put %p and %n into it");
    }
}

void QueueOwner::Core::FailAttempt(const std::string& reason) {
    pauseEnds = std::chrono::steady_clock::now() + backoff.Next();
    SetLink(Link::PAUSING);
    const bool news = refusal != refusalSaid;
    refusalSaid = refusal;
    Say(news && refusal != 0 ? Severity::WARNING : Severity::DEBUG, "cannot reconnect to " + place + ": " + reason);
}

// Without releasing the lock: no application's publication slips in, to be overtaken by an older one of the same topic.
void QueueOwner::Core::Restore() {
    restoreDue = false;
    refusalSaid = 0;
    for (auto& subscription : subscriptions)
        client->Subscribe(subscription.filter, subscription.qos, subscription.messageId);
    const auto messages = announced.ToAnnounce();
    for (const auto& message : messages)
        Send(message.topic, message.payload, message.retained, message.assured);
    client->Write();
    if (link != Link::UP)
        return;
    inbox.Add().kind = Event::Kind::CONNECTED;
    Say(evictionSaid ? Severity::DEBUG : Severity::INFO,
        "connected again to " + place + " after " + Seconds(std::chrono::steady_clock::now() - lostAt) + "; " +
            std::to_string(subscriptions.size()) + " subscriptions and " + std::to_string(messages.size()) +
            " announcements made again");
}

void QueueOwner::Core::OnMessage(const char* topic, const void* payload, std::size_t size) noexcept {
    Event& event = inbox.Add();
    event.kind = Event::Kind::MESSAGE;
    event.topic.assign(topic);
    event.payload.assign(static_cast<const char*>(payload), size);
}

void QueueOwner::Core::OnTaken(int messageId) noexcept {
    auto taken = outstanding.Take(messageId);
    if (refusedForBytes != 0 && outstanding.Bytes() <= settings.maxOutstandingBytes / 2) {
        Say(Severity::INFO,
            "the broker keeps up again; " + std::to_string(refusedForBytes) + " publications were refused");
        refusedForBytes = 0;
    }
    if (!taken || !taken->assured)
        return;
    Event& event = inbox.Add();
    event.kind = Event::Kind::DELIVERED;
    event.topic = std::move(taken->topic);
}

void QueueOwner::Core::OnSubscribed(int messageId, bool granted) noexcept {
    const auto found = std::find_if(subscriptions.begin(), subscriptions.end(),
                                    [&](const auto& one) { return one.messageId == messageId; });
    if (found == subscriptions.end())
        return;
    if (!granted)
        Say(Severity::WARNING,
            "the broker refuses the subscription to " + found->filter + "; look into its access list");
    found->messageId = 0;
}

void QueueOwner::Core::Deliver() {
    while (!inbox.Empty()) {
        const unsigned current = generation;
        outbox.Swap(inbox);
        for (std::size_t index = 0; index < outbox.Size(); ++index) {
            if (generation != current || deliveryStopped)
                break;
            const Event& event = outbox[index];
            delivering = true;
            mutex.unlock();
            Dispatch(event);
            mutex.lock();
            delivering = false;
            if (stopsAwaited > 0)
                changed.notify_all();
        }
        outbox.Clear();
    }
}

void QueueOwner::Core::Dispatch(const Event& event) {
    try {
        switch (event.kind) {
        case Event::Kind::CONNECTED:
            owner.OnConnect();
            break;
        case Event::Kind::MESSAGE:
            owner.OnPublish(event.topic, event.payload);
            break;
        case Event::Kind::DELIVERED:
            owner.OnDeliveryCompleted(event.topic);
            break;
        }
    } catch (const std::exception& exception) {
        logger.Error() << clientId << ": an exception left the application's callback: " << exception.what();
    } catch (...) {
        logger.Error() << clientId << ": an exception of unknown type left the application's callback";
    }
}

} // namespace QUILMQTT
