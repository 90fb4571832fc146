// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "CommonUtils/Logger.h"
#include "ConnmanServices.h"
#include "ConnmanWanted.h"
#include "MessageBus.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace OrvPlatform {

struct ConnmanLimits {
    std::chrono::milliseconds greeting{3000};      ///< for the bus to accept a connection
    std::chrono::milliseconds answer{3000};        ///< after which a silent connection manager is reported
    std::chrono::milliseconds firstRetry{250};     ///< of what failed; doubles ...
    std::chrono::milliseconds longestRetry{10000}; ///< ... up to this
    std::chrono::milliseconds stop{500};           ///< for the thread to end when the process does
};

/// What the callers and the thread share. `mutex` guards everything; it is held only for as long as it takes to look or
/// to note.
struct ConnmanShared {
    /// UNKNOWN: not asked yet; AWAY: there is no connection manager; KNOWN: `services` is its picture.
    enum class Picture { UNKNOWN, AWAY, KNOWN };

    ConnmanShared();
    ~ConnmanShared();
    ConnmanShared(const ConnmanShared&) = delete;
    ConnmanShared& operator=(const ConnmanShared&) = delete;

    void Wake() const noexcept;
    /// Has the thread log `text`, the first time only.
    void NoteOnce(const std::string& text);
    void End();

    std::mutex mutex;
    std::condition_variable hasEnded;
    Picture picture = Picture::UNKNOWN;
    ConnmanServices services;
    ConnmanWanted wanted;
    std::set<std::string> noted;
    std::vector<std::string> notes;
    bool stopping = false;
    bool ended = false;
    const int wakeDescriptor;
};

/// The thread that owns the bus connection: keeps the picture and carries out the orders, one call at a time.
class ConnmanRunner {
public:
    ConnmanRunner(std::shared_ptr<ConnmanShared> state, std::string address, const ConnmanLimits& timeLimits);

    /// Returns when the shared state says `stopping`.
    void Run();

private:
    using Clock = MessageBus::Clock;

    /// What is missing; each is logged when it sets in, not again while it lasts.
    enum class Loss { NONE, BUS, MANAGER, LIST };

    void GoOn();
    void Connect();
    std::string Introduce();
    void BusFailed(const std::string& reason);
    void OwnerIs(const std::string& name);
    void Away(Loss loss, const std::string& text);
    void Report(Loss loss, const std::string& text);
    void Refresh(const ConnmanStep* accomplished);
    void ForgetLeftovers();
    void CarryOut(const ConnmanStep& step);
    MessageBus::Reply Ask(DBusMessagePtr message, const std::string& what);
    ConnmanStep NextStep();
    void LogNotes();
    void HandleSignal(DBusMessage& signal);
    std::chrono::milliseconds NextRetry();
    bool IsStopping() const;
    std::string Summary() const;

    const std::shared_ptr<ConnmanShared> shared;
    const std::string busAddress;
    const ConnmanLimits limits;
    CommonUtils::Logger logger;
    MessageBus bus;

    std::string owner;    ///< the connection manager's unique name on the bus; empty when it is away
    bool stale = true;    ///< the list of services must be asked for
    bool greeted = false; ///< the connection manager's presence has been logged
    bool leftoversDone = false;
    Loss reported = Loss::NONE;
    Clock::time_point nextTry;
    std::chrono::milliseconds retryDelay;
};

} // namespace OrvPlatform
