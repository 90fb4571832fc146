// SPDX-License-Identifier: Apache-2.0
// What the delivery thread does: it moves bytes, keeps the connection up and calls the application.
#include "base/Deadline.h"
#include "broker/MqttText.h"
#include "broker/QueueOwnerCore.h"

#include <mosquitto.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <utility>

namespace QUILMQTT {

using namespace std::chrono_literals;
using OrvPlatform::Event;
using OrvPlatform::MosquittoErrorText;
using OrvPlatform::MutexLock;
using OrvPlatform::Unlocked;

namespace {

// What holds up a callback for less cannot have cost a connection.
constexpr auto SLOW_CALLBACK = 1s;

// How soon a thread that serves another's connection sees that it was given up meanwhile.
constexpr std::chrono::milliseconds SERVE_SLICE = 20ms;

std::string DescribeCallback(const Event& event) {
    switch (event.kind) {
    case Event::Kind::CONNECTED:
        return "the application's OnConnect";
    case Event::Kind::MESSAGE:
        return "the application's callback for " + OrvPlatform::Shortened(event.topic);
    case Event::Kind::DELIVERED:
        return "the application's OnDeliveryCompleted for " + OrvPlatform::Shortened(event.topic);
    }
    return {};
}

} // namespace

std::string QueueOwner::Core::Seconds(std::chrono::steady_clock::duration duration) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", std::chrono::duration<double>(duration).count());
    return text;
}

void QueueOwner::Core::Run(unsigned ownNumber) noexcept {
    MutexLock lock(mutex);
    while (threadNumber == ownNumber) {
        if (link.Current() == StateMachine::State::CLOSED) {
            // Not while the log is away: a Connect meanwhile counts on this thread.
            if (records.IsEmpty()) {
                running = false;
                return;
            }
            WriteLog();
            continue;
        }
        serving = true;
        RunOnce();
        serving = false;
        if (connectWaiters > 0)
            changed.notify_all();
        WriteLog();
        if (threadNumber == ownNumber)
            Deliver();
    }
}

void QueueOwner::Core::RunOnce() noexcept {
    const unsigned seen = generation;
    const int socket = client->Socket();
    const short pollEvents = socket >= 0 && client->WantsWrite() ? POLLIN | POLLOUT : POLLIN;
    pollfd waits[] = {{waker.Descriptor(), POLLIN, 0}, {socket, pollEvents, 0}};
    // A connection that is up gets along without the clock.
    const std::chrono::milliseconds limit =
        link.IsUp() ? StateMachine::MAINTENANCE_INTERVAL : OrvPlatform::TimeUntil(link.NextDue(lastClockReading));

    ++pollers;
    {
        const Unlocked unlocked(mutex);
        poll(waits, 2, static_cast<int>(limit.count()));
    }
    --pollers;

    // While the lock was away another client may have taken this one's place, its descriptor's number even; and another
    // thread this one's, for which the wake-up may be meant.
    if (seen != generation) {
        lastClockReading = std::chrono::steady_clock::now();
        return;
    }
    // A thread that is to end may be polling still: the wake-up is for it, too.
    if (waits[0].revents != 0 && pollers == 0)
        waker.Clear();
    ServeSocket(waits[1].revents);
    Advance(std::chrono::steady_clock::now());
}

// The same by another thread, for a delivery thread that does something else. The wake-up stays the delivery thread's.
void QueueOwner::Core::ServeForDeliveryThread(Time deadline) noexcept {
    const unsigned seen = generation;
    const int socket = client->Socket();
    const short pollEvents = socket >= 0 && client->WantsWrite() ? POLLIN | POLLOUT : POLLIN;
    pollfd wait{socket, pollEvents, 0};
    const int limit = static_cast<int>(std::min(SERVE_SLICE, OrvPlatform::TimeUntil(deadline)).count());

    {
        const Unlocked unlocked(mutex);
        poll(&wait, 1, limit);
    }

    if (seen == generation)
        ServeSocket(wait.revents);
}

void QueueOwner::Core::ServeSocket(short ready) noexcept {
    if ((ready & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) != 0)
        client->Read();
    if ((ready & POLLOUT) != 0)
        client->Write();
    if (dropped != 0)
        LogDroppedEvents();
    if (!link.IsUp())
        return;
    if (link.IsRestorePending())
        RestoreSession();
    else if (congestionEnded)
        EndCongestion();
}

void QueueOwner::Core::Advance(Time now) noexcept {
    lastClockReading = now;
    if (link.IsUp())
        silence.Served(now);
    switch (link.Advance(now)) {
    case StateMachine::Due::MAINTENANCE:
        SendPending();
        client->KeepAlive();
        break;
    case StateMachine::Due::ATTEMPT_TIMED_OUT:
        changed.notify_all();
        LogFailedAttempt([] { return std::string("no answer within 10 s"); });
        break;
    case StateMachine::Due::RECONNECT:
        changed.notify_all();
        BeginReconnect();
        break;
    case StateMachine::Due::NOTHING:
        break;
    }
}

void QueueOwner::Core::BeginReconnect() noexcept {
    const int error = client->BeginReconnect();
    const int systemError = errno;
    if (error == MOSQ_ERR_SUCCESS)
        return;
    link.AttemptFailed(std::chrono::steady_clock::now());
    changed.notify_all();
    LogFailedAttempt([&] { return MosquittoErrorText(error, systemError); });
}

void QueueOwner::Core::LogDroppedEvents() noexcept {
    const bool isReported = Log(Severity::ERROR, [this]() ORV_REQUIRES(mutex) {
        return "out of memory: " + std::to_string(dropped) +
               " messages or acknowledgements did not reach the application";
    });
    if (isReported)
        dropped = 0;
}

void QueueOwner::Core::QueueEvent(Event::Kind kind) noexcept {
    try {
        queuedEvents.Next().kind = kind;
        queuedEvents.Push();
    } catch (const std::bad_alloc&) {
        ++dropped;
    }
}

void QueueOwner::Core::OnConnack(int code) noexcept {
    const Time now = std::chrono::steady_clock::now();
    const StateMachine::Answer answer = link.Answered(code, now);
    if (answer == StateMachine::Answer::IGNORED || answer == StateMachine::Answer::REFUSED)
        return;
    changed.notify_all();
    silence.Begin(now);
    reportedRefusals = 0;
    if (answer == StateMachine::Answer::RECONNECTED)
        return; // to be restored
    QueueEvent(Event::Kind::CONNECTED);
    const unsigned refused = std::exchange(refusedOffline, 0);
    Log(Severity::INFO, [&] {
        return "connected to " + endpoint +
               (refused == 0 ? "" : "; " + std::to_string(refused) + " publications had been refused before");
    });
}

void QueueOwner::Core::OnDisconnected(int error) noexcept {
    const int systemError = errno;
    const Time now = std::chrono::steady_clock::now();
    const auto silent = silence.BeforeLoss(now);
    const auto reason = [&]() ORV_REQUIRES(mutex) {
        return link.Refusal() != 0 ? "refused by the broker: " + OrvPlatform::RefusalText(link.Refusal())
                                   : MosquittoErrorText(error, systemError);
    };
    // A broker that has heard nothing ends the connection in the same way as one that prefers another client.
    switch (link.Lost(now, error == MOSQ_ERR_CONN_LOST && silent == silent.zero())) {
    case StateMachine::Loss::CONNECT_FAILED:
        SetFailure(reason);
        break;
    case StateMachine::Loss::CONNECTION_LOST:
        OrvPlatform::tallies.brokerLosses.Add();
        outstanding.DropUnassured();
        // Also for a Connect that has not yet seen that it was accepted.
        SetFailure([&]() ORV_REQUIRES(mutex) {
            return MosquittoErrorText(error, systemError) +
                   (silent == silent.zero() ? "" : DescribeSilence(silent, now));
        });
        Wake();
        LogLoss();
        break;
    case StateMachine::Loss::ATTEMPT_FAILED:
        LogFailedAttempt(reason);
        break;
    case StateMachine::Loss::IGNORED:
        return;
    }
    changed.notify_all();
}

void QueueOwner::Core::LogLoss() noexcept {
    switch (link.ReportOfLoss()) {
    case StateMachine::LossReport::LOSS:
        Log(Severity::WARNING, [this]() ORV_REQUIRES(mutex) {
            return "lost the connection to " + endpoint + ": " + failure + "; reconnecting";
        });
        break;
    case StateMachine::LossReport::EVICTION:
        if (Log(Severity::ERROR, [] {
                return std::string(
                    "the broker keeps throwing this client off: another client uses the same id; leave [broker] "
                    "client_id_suffix out, or put %p and %n into it");
            }))
            link.EvictionReported();
        break;
    case StateMachine::LossReport::NONE:
        break;
    }
}

std::string QueueOwner::Core::DescribeSilence(OrvPlatform::SilenceWatch::Duration silent, Time now) const {
    std::string text = "; this client had been silent for " + Seconds(silent);
    if (currentEvent != nullptr)
        text += ", held up by " + DescribeCallback(*currentEvent) + ", which has not returned yet";
    else if (now - slowCallbackEnded <= silent + OrvPlatform::SilenceWatch::UNFORGIVEN && !slowCallback.empty())
        text += ", held up by " + slowCallback;
    return text;
}

template <typename Reason>
void QueueOwner::Core::LogFailedAttempt(Reason reason) noexcept {
    Log(link.TakeNewRefusal() ? Severity::WARNING : Severity::DEBUG,
        [&]() ORV_REQUIRES(mutex) { return "cannot reconnect to " + endpoint + ": " + reason(); });
}

void QueueOwner::Core::OnMessage(const char* topic, const void* payload, std::size_t size) noexcept {
    try {
        Event& event = queuedEvents.Next();
        event.kind = Event::Kind::MESSAGE;
        event.topic.assign(topic);
        event.payload.assign(static_cast<const char*>(payload), size);
        queuedEvents.Push();
    } catch (const std::bad_alloc&) {
        ++dropped;
    }
}

void QueueOwner::Core::OnSuback(int messageId, bool granted) noexcept {
    const auto found = std::find_if(subscriptions.begin(), subscriptions.end(),
                                    [&](const auto& one) { return one.messageId == messageId; });
    if (found == subscriptions.end())
        return;
    if (!granted)
        Log(Severity::WARNING,
            [&] { return "the broker refuses the subscription to " + found->filter + "; look into its access list"; });
    found->messageId = 0;
}

void QueueOwner::Core::Deliver() noexcept {
    while (!queuedEvents.Empty()) {
        const unsigned current = generation;
        Time begun = lastClockReading;
        eventsInDelivery.Swap(queuedEvents);
        for (std::size_t index = 0; index < eventsInDelivery.Size(); ++index) {
            if (generation != current || deliveryStopped)
                break;
            const Event& event = eventsInDelivery[index];
            delivering = true;
            currentEvent = &event;
            Time ended;
            {
                const Unlocked unlocked(mutex);
                Dispatch(event);
                ended = std::chrono::steady_clock::now();
            }
            delivering = false;
            currentEvent = nullptr;
            RecordCallbackDuration(event, begun, ended);
            begun = lastClockReading = ended;
            if (stopWaiters > 0)
                changed.notify_all();
        }
        eventsInDelivery.Clear();
    }
}

void QueueOwner::Core::RecordCallbackDuration(const Event& event, Time begun, Time ended) noexcept {
    if (ended - begun < SLOW_CALLBACK)
        return;
    try {
        slowCallback = DescribeCallback(event) + ", which took " + Seconds(ended - begun);
    } catch (const std::bad_alloc&) {
        slowCallback.clear();
    }
    slowCallbackEnded = ended;
}

void QueueOwner::Core::Dispatch(const Event& event) noexcept {
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
        log.WriteException(exception.what());
    } catch (...) {
        log.WriteException(nullptr);
    }
}

} // namespace QUILMQTT
