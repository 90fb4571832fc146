// SPDX-License-Identifier: Apache-2.0
// What is said to the broker: now, or by itself once it can be said.
#include "broker/MqttText.h"
#include "broker/QueueOwnerCore.h"

#include <mosquitto.h>

namespace QUILMQTT {

using OrvPlatform::AnnouncedState;
using OrvPlatform::Event;
using OrvPlatform::MutexLock;
using OrvPlatform::OutstandingPublications;
using OrvPlatform::Shortened;

namespace {

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

std::string Refused(unsigned publications, unsigned announced) {
    return std::to_string(publications) + " publications were refused" +
           (announced == 0 ? "" : ", what was last asked is announced now on " + std::to_string(announced) + " topics");
}

} // namespace

int QueueOwner::Core::Publish(const std::string& topic, const std::string& payload, bool retained, bool assured) {
    if (IsInherited()) {
        OrvPlatform::tallies.refusedPublications.Add();
        return NOT_CONNECTED;
    }
    if (IsLeftToTheController(topic))
        return HANDED_OVER;
    MutexLock lock(mutex);
    const int status = TryPublish(topic, payload, retained, assured);
    if (status != HANDED_OVER) {
        OrvPlatform::tallies.refusedPublications.Add();
        RecordRefusal(status, topic, payload.size());
    }
    return status;
}

int QueueOwner::Core::TryPublish(const std::string& topic, const std::string& payload, bool retained,
                                 bool assured) noexcept {
    if (OrvPlatform::FaultOfTopic(topic) != nullptr)
        return MALFORMED_TOPIC;
    const std::size_t cost = OutstandingPublications::Cost(topic, payload);
    if (cost > settings.maxOutstandingBytes)
        return PAYLOAD_TOO_LARGE;
    // Before anything can go wrong: what was asked earlier on this topic must not be announced any more.
    const auto outcome = announced.Remember(topic, payload, retained, assured);
    if (outcome == AnnouncedState::Outcome::OUT_OF_MEMORY)
        return FAILED;
    if (outcome == AnnouncedState::Outcome::NO_ROOM && !isForgettingReported)
        isForgettingReported = Log(Severity::WARNING, [&] {
            return "there is more retained state than [broker] max_outstanding_bytes (" +
                   std::to_string(settings.maxOutstandingBytes) +
                   "): nothing will be announced again after a reconnection on " + Shortened(topic) +
                   " and on further topics";
        });
    if (!link.IsUp())
        return NOT_CONNECTED;
    if (!outstanding.HasRoomFor(cost))
        return OUTSTANDING_FULL;
    const int status = Send(topic, payload, retained, assured);
    if (status != HANDED_OVER)
        return status;
    if (outcome == AnnouncedState::Outcome::REMEMBERED)
        announced.MarkLatestSent();
    Flush();
    return HANDED_OVER;
}

// Sends from here when the socket has room; otherwise the delivery thread sends when it has.
void QueueOwner::Core::Flush() noexcept {
    client->Write();
    if (congestionEnded && link.IsUp())
        EndCongestion();
    if (link.IsUp())
        silence.Served(std::chrono::steady_clock::now());
    if (client->WantsWrite())
        Wake();
}

int QueueOwner::Core::Send(const std::string& topic, const std::string& payload, bool retained, bool assured) noexcept {
    try {
        auto prepared = OutstandingPublications::Prepare(
            {assured ? topic : std::string(), OutstandingPublications::Cost(topic, payload), assured});
        int messageId = 0;
        const int error = client->Publish(topic, payload, assured, retained, messageId);
        if (error == MOSQ_ERR_SUCCESS)
            outstanding.Add(messageId, std::move(prepared));
        return StatusOf(error);
    } catch (const std::bad_alloc&) {
        return FAILED;
    }
}

// The delivery thread writes the record, as long as there is one: a publication must not wait for the log.
void QueueOwner::Core::RecordRefusal(int status, const std::string& topic, std::size_t size) noexcept {
    const unsigned bit = 1U << static_cast<unsigned>(status);
    bool isFirst = (reportedRefusals & bit) == 0;
    if (status == OUTSTANDING_FULL)
        isFirst = refusedForBytes++ == 0;
    else if (status == NOT_CONNECTED)
        ++refusedOffline;
    if (!isFirst)
        return;
    reportedRefusals |= bit;
    Log(Severity::WARNING, [&]() ORV_REQUIRES(mutex) {
        const std::string shown = Shortened(topic);
        switch (status) {
        case NOT_CONNECTED:
            return "a publication on " + shown + " was refused: not connected to " + endpoint +
                   "; more of them are counted until there is a connection";
        case MALFORMED_TOPIC:
            return "a publication was refused: the topic \"" + shown + "\" " + OrvPlatform::FaultOfTopic(topic);
        case PAYLOAD_TOO_LARGE:
            return "a publication of " + std::to_string(size) + " bytes on " + shown +
                   " was refused: it can never fit in; [broker] max_outstanding_bytes is " +
                   std::to_string(settings.maxOutstandingBytes);
        case OUTSTANDING_FULL:
            return "the broker does not keep up: " + std::to_string(outstanding.Bytes()) +
                   " bytes are outstanding, publications are refused until it takes some, the first one on " + shown +
                   "; [broker] max_outstanding_bytes is " + std::to_string(settings.maxOutstandingBytes);
        default:
            return "a publication on " + shown + " was refused: out of memory";
        }
    });
    if (running)
        Wake();
    else
        WriteLog();
}

// Without releasing the lock: no application's publication slips in, to be overtaken by an older one of the same topic.
void QueueOwner::Core::RestoreSession() noexcept {
    link.BeginRestore();
    for (auto& subscription : subscriptions)
        client->Subscribe(subscription.filter, subscription.qos, subscription.messageId);
    unsigned news = 0;
    for (auto& announcement : announced.All()) {
        news += announcement.pending ? 1 : 0;
        announcement.pending =
            Send(announcement.topic, announcement.payload, announcement.retained, announcement.assured) != HANDED_OVER;
    }
    client->Write();
    if (!link.IsUp())
        return;
    QueueEvent(Event::Kind::CONNECTED);
    const unsigned refused = refusedOffline + refusedForBytes;
    refusedOffline = refusedForBytes = 0;
    congestionEnded = false;
    Log(link.IsEvictionReported() ? Severity::DEBUG : Severity::INFO, [&]() ORV_REQUIRES(mutex) {
        return "connected again to " + endpoint + " after " + Seconds(link.Outage(std::chrono::steady_clock::now())) +
               "; " + std::to_string(subscriptions.size()) + " subscriptions and " +
               std::to_string(announced.All().size()) + " announcements made again" +
               (refused == 0 ? "" : "; " + Refused(refused, news));
    });
}

// What was refused while there was a connection. Stops at what does not fit: the oldest goes first.
unsigned QueueOwner::Core::SendPending() noexcept {
    unsigned sent = 0;
    for (auto& announcement : announced.All()) {
        if (!announcement.pending)
            continue;
        if (!outstanding.HasRoomFor(OutstandingPublications::Cost(announcement.topic, announcement.payload)) ||
            Send(announcement.topic, announcement.payload, announcement.retained, announcement.assured) != HANDED_OVER)
            break;
        announcement.pending = false;
        ++sent;
    }
    if (sent != 0)
        client->Write();
    return sent;
}

void QueueOwner::Core::EndCongestion() noexcept {
    congestionEnded = false;
    const unsigned refused = refusedForBytes;
    refusedForBytes = 0;
    const unsigned sent = SendPending();
    Log(Severity::INFO, [&] { return "the broker keeps up again; " + Refused(refused, sent); });
}

void QueueOwner::Core::OnPublishCompleted(int messageId) noexcept {
    auto taken = outstanding.Take(messageId);
    if (refusedForBytes != 0 && outstanding.Bytes() <= settings.maxOutstandingBytes / 2)
        congestionEnded = true;
    if (!taken || !taken->assured)
        return;
    try {
        Event& event = queuedEvents.Next();
        event.kind = Event::Kind::DELIVERED;
        event.topic = std::move(taken->topic);
        queuedEvents.Push();
    } catch (const std::bad_alloc&) {
        ++dropped;
    }
}

} // namespace QUILMQTT
