// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Tally.h"
#include "base/ThreadSafety.h"
#include "base/Waker.h"
#include "broker/AnnouncedState.h"
#include "broker/EventQueue.h"
#include "broker/LinkStateMachine.h"
#include "broker/LogOutbox.h"
#include "broker/MosquittoClient.h"
#include "broker/OutstandingPublications.h"
#include "broker/SilenceWatch.h"
#include "config/GatewayConfig.h"

#include "QuilMqtt/QueueOwner.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace QUILMQTT {

/// The working part of a QueueOwner. The delivery thread shares it, so that the owner may be deleted in a callback:
/// what the thread touches after a callback is this, never the owner.
///
/// One mutex guards everything. It is never held while waiting, while a callback runs or while a log record is written.
/// Under it only non-blocking calls are made, so that no caller waits for the broker.
///
/// Want of memory costs what could not be kept, a message or a record, and never the thread or the connection: what the
/// delivery thread runs is noexcept.
///
/// A forked child has a copy of this, and neither the thread nor a say about the connection, whose socket it shares
/// with its parent: it touches nothing here, not even the mutex, which may be held for ever.
class QueueOwner::Core final : public std::enable_shared_from_this<Core>, private OrvPlatform::MosquittoEvents {
public:
    Core(QueueOwner& owner, const std::string& clientId, const OrvPlatform::GatewayConfig& config);
    ~Core();
    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;

    bool Connect(const std::optional<OrvPlatform::LastWill>& will) ORV_EXCLUDES(mutex);
    bool Disconnect() ORV_EXCLUDES(mutex);
    bool Subscribe(const std::string& filter, int qos) ORV_EXCLUDES(mutex);
    int Publish(const std::string& topic, const std::string& payload, bool retained, bool assured) ORV_EXCLUDES(mutex);
    void StopDelivery() ORV_EXCLUDES(mutex);

    /// The owner goes: no callback begins any more, the connection is dropped without a DISCONNECT.
    void Abandon() ORV_EXCLUDES(mutex);

private:
    using Time = std::chrono::steady_clock::time_point;

    using StateMachine = OrvPlatform::LinkStateMachine;
    using Severity = OrvPlatform::ClientRecord::Severity;

    // The delivery thread.
    void Run(unsigned ownNumber) noexcept ORV_EXCLUDES(mutex);
    void RunOnce() noexcept ORV_REQUIRES(mutex);
    void ServeForDeliveryThread(Time deadline) noexcept ORV_REQUIRES(mutex);
    void ServeSocket(short ready) noexcept ORV_REQUIRES(mutex);
    void Advance(Time now) noexcept ORV_REQUIRES(mutex);
    void RestoreSession() noexcept ORV_REQUIRES(mutex);
    unsigned SendPending() noexcept ORV_REQUIRES(mutex);
    void EndCongestion() noexcept ORV_REQUIRES(mutex);
    void Deliver() noexcept ORV_REQUIRES(mutex);
    void RecordCallbackDuration(const OrvPlatform::Event& event, Time begun, Time ended) noexcept ORV_REQUIRES(mutex);
    void Dispatch(const OrvPlatform::Event& event) noexcept ORV_EXCLUDES(mutex);

    // The connection.
    std::unique_ptr<OrvPlatform::MosquittoClient> TakeClient() ORV_REQUIRES(mutex);
    bool Open(const std::optional<OrvPlatform::LastWill>& will, Time deadline) ORV_REQUIRES(mutex);
    bool TryOpen(const std::optional<OrvPlatform::LastWill>& will, Time deadline) noexcept ORV_REQUIRES(mutex);
    void AwaitAnswer(unsigned asked, Time deadline) ORV_REQUIRES(mutex);
    bool StartThread() ORV_REQUIRES(mutex);
    void RetireThread() ORV_REQUIRES(mutex); // releases it meanwhile
    bool OnDeliveryThread() const ORV_REQUIRES(mutex);
    void BeginReconnect() noexcept ORV_REQUIRES(mutex);
    void LogLoss() noexcept ORV_REQUIRES(mutex);
    std::string DescribeSilence(OrvPlatform::SilenceWatch::Duration silent, Time now) const ORV_REQUIRES(mutex);
    template <typename Reason>
    void SetFailure(Reason reason) noexcept ORV_REQUIRES(mutex) {
        try {
            failure = reason();
        } catch (const std::bad_alloc&) {
            failure.clear();
        }
    }
    template <typename Reason>
    void LogFailedAttempt(Reason reason) noexcept ORV_REQUIRES(mutex);
    int TryPublish(const std::string& topic, const std::string& payload, bool retained, bool assured) noexcept
        ORV_REQUIRES(mutex);
    int Send(const std::string& topic, const std::string& payload, bool retained, bool assured) noexcept
        ORV_REQUIRES(mutex);
    bool IsLeftToTheController(const std::string& topic) noexcept;
    void Flush() noexcept ORV_REQUIRES(mutex);
    void RecordRefusal(int status, const std::string& topic, std::size_t size) noexcept ORV_REQUIRES(mutex);
    void QueueEvent(OrvPlatform::Event::Kind kind) noexcept ORV_REQUIRES(mutex);
    void Wake() const noexcept ORV_REQUIRES(mutex);
    static std::string Seconds(std::chrono::steady_clock::duration duration);

    /// In a child of the process that made this.
    bool IsInherited() const noexcept;
    /// For as long as the process lives: a destructor would touch what is not this process's.
    void Keep() noexcept;

    // What MosquittoClient reports; its operations are called under the mutex only.
    void OnConnack(int code) noexcept override ORV_REQUIRES(mutex);
    void OnDisconnected(int error) noexcept override ORV_REQUIRES(mutex);
    void OnMessage(const char* topic, const void* payload, std::size_t size) noexcept override ORV_REQUIRES(mutex);
    void OnPublishCompleted(int messageId) noexcept override ORV_REQUIRES(mutex);
    void OnSuback(int messageId, bool granted) noexcept override ORV_REQUIRES(mutex);

    /// Notes a record, to be written by the next WriteLog.
    /// @return false when there was no memory for it
    template <typename Text>
    bool Log(Severity severity, Text text) noexcept ORV_REQUIRES(mutex) {
        try {
            records.Add({severity, text()});
            return true;
        } catch (const std::bad_alloc&) {
            OrvPlatform::tallies.lostLogRecords.Add();
            return false;
        }
    }
    void LogDroppedEvents() noexcept ORV_REQUIRES(mutex);
    void WriteLog() noexcept ORV_REQUIRES(mutex); // releases it meanwhile

    // Fixed at construction.
    const OrvPlatform::GatewayConfig::Broker settings;
    const std::string clientId;
    const std::string endpoint; // host:port or the socket, for the log
    /// Filters of the topics that are left to another program.
    const std::vector<std::string> foreignTopics;
    const pid_t process;        // that made this
    std::shared_ptr<Core> kept; // itself and the one that was kept before, in a forked child
    Core* keptBefore = nullptr;

    OrvPlatform::ClientLog log;
    QueueOwner& owner; // until Abandon

    mutable OrvPlatform::Mutex mutex;
    std::condition_variable_any changed; // link or delivering

    // The delivery thread, from Connect until the connection is given up.
    std::thread thread ORV_GUARDED_BY(mutex);
    std::thread::id threadId ORV_GUARDED_BY(mutex);
    unsigned threadNumber ORV_GUARDED_BY(mutex) = 0; // a thread with another number is to end
    OrvPlatform::Waker waker ORV_GUARDED_BY(mutex);  // ends its poll; opened by Connect where there was no descriptor
    bool running ORV_GUARDED_BY(mutex) = false;
    bool serving ORV_GUARDED_BY(mutex) = false;    // it serves the connection, rather than a callback or the log
    int pollers ORV_GUARDED_BY(mutex) = 0;         // threads that the waker is to wake
    int connectWaiters ORV_GUARDED_BY(mutex) = 0;  // callers of Connect
    bool delivering ORV_GUARDED_BY(mutex) = false; // a callback is under way
    bool deliveryStopped ORV_GUARDED_BY(mutex) = false;
    int stopWaiters ORV_GUARDED_BY(mutex) = 0; // callers of StopDelivery
    OrvPlatform::EventQueue queuedEvents ORV_GUARDED_BY(mutex);
    OrvPlatform::EventQueue eventsInDelivery ORV_GUARDED_BY(mutex); // only the delivery thread changes it
    const OrvPlatform::Event* currentEvent ORV_GUARDED_BY(mutex) = nullptr;
    Time lastClockReading ORV_GUARDED_BY(mutex); // when a callback that comes next begins, near enough
    Time slowCallbackEnded ORV_GUARDED_BY(mutex);
    std::string slowCallback ORV_GUARDED_BY(mutex); // the latest one that took long, in words
    unsigned dropped ORV_GUARDED_BY(mutex) = 0;     // events for which there was no memory

    // The connection.
    StateMachine link ORV_GUARDED_BY(mutex);
    unsigned generation ORV_GUARDED_BY(mutex) = 0; // counts the clients that were taken away
    std::unique_ptr<OrvPlatform::MosquittoClient> client ORV_GUARDED_BY(mutex);
    std::string failure ORV_GUARDED_BY(mutex); // why the first attempt failed
    OrvPlatform::SilenceWatch silence ORV_GUARDED_BY(mutex);

    // What is said to the broker.
    struct Subscription {
        std::string filter;
        int qos;
        int messageId; // of the latest request; 0 once it is answered
    };
    std::vector<Subscription> subscriptions ORV_GUARDED_BY(mutex);
    OrvPlatform::AnnouncedState announced ORV_GUARDED_BY(mutex);
    OrvPlatform::OutstandingPublications outstanding ORV_GUARDED_BY(mutex);
    unsigned refusedForBytes ORV_GUARDED_BY(mutex) = 0;  // since the broker has not kept up
    unsigned refusedOffline ORV_GUARDED_BY(mutex) = 0;   // since there was a connection
    unsigned reportedRefusals ORV_GUARDED_BY(mutex) = 0; // since then, a bit for each status
    bool congestionEnded ORV_GUARDED_BY(mutex) = false;
    bool isForgettingReported ORV_GUARDED_BY(mutex) = false;

    // Collected here, because a sink may block, and written by WriteLog.
    OrvPlatform::LogOutbox records ORV_GUARDED_BY(mutex);
};

} // namespace QUILMQTT
