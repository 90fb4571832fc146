// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "CommonUtils/Logger.h"
#include "base/Backoff.h"
#include "connman/ConnmanShared.h"
#include "connman/MessageBus.h"

#include <chrono>
#include <memory>
#include <string>

namespace OrvPlatform {

/// What this process may do: an ONLOOKER follows the connection manager and orders nothing.
enum class ConnmanRole { CONTROLLER, ONLOOKER };

struct ConnmanLimits {
    std::chrono::milliseconds greeting{3000};      ///< for the bus to accept a connection
    std::chrono::milliseconds answer{3000};        ///< after which a silent connection manager is reported
    std::chrono::milliseconds firstRetry{250};     ///< of what failed; doubles ...
    std::chrono::milliseconds longestRetry{10000}; ///< ... up to this
    std::chrono::milliseconds stop{500};           ///< for the thread to end when the process does
    std::chrono::milliseconds fork{500};           ///< for the thread to come out of libdbus when the process forks
};

/// The thread that owns the bus connection: keeps the picture and carries out the orders, one call at a time.
class ConnmanRunner {
public:
    ConnmanRunner(std::shared_ptr<ConnmanShared> state, std::string address, const ConnmanLimits& timeLimits,
                  ConnmanRole role);

    /// Returns when the shared state says `stopping`.
    void Run();

private:
    using Clock = MessageBus::Clock;

    /// What is missing; each is logged when it sets in, not again while it lasts.
    enum class Loss { NONE, BUS, MANAGER, LIST };

    void Fail(const char* reason) noexcept;
    void RunOnce();
    void Connect();
    std::string SubscribeAndFindOwner();
    std::string FindOwner();
    void QueryAgain();
    Clock::time_point NextWake() const;
    void BusLost();
    void BusFailed(const std::string& reason);
    void OwnerIs(const std::string& name);
    void SetAway(Loss loss, const std::string& text);
    void Report(Loss loss, const std::string& text);
    void Refresh(const ConnmanCall* executed);
    bool ApplyList(const MessageBus::Reply& reply, const ConnmanCall* executed);
    bool OwnerHasGone(const MessageBus::Reply& reply, const std::string& askedOwner);
    void ForgetLeftovers() ORV_REQUIRES(shared->mutex);
    void Execute(const ConnmanCall& call);
    std::string Remedy(const ConnmanCall& call, const std::string& error) const ORV_REQUIRES(shared->mutex);
    MessageBus::Reply Call(DBusMessagePtr message, const std::string& what);
    ConnmanCall NextCall();
    void LogNotes();
    void HandleSignal(DBusMessage& signal);
    void HandleServicesChanged(DBusMessage& signal);
    void HandlePropertyChanged(DBusMessage& signal);
    void HandleStranger(DBusMessage& signal);
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
    bool leftoversDone;   ///< or another program's business
    bool doubted =
        false; ///< somebody else's signals have come: ask again who the connection manager is, and what it has
    bool strangerReported = false;
    bool connected = false; ///< the bus has been open
    Loss reported = Loss::NONE;
    Clock::time_point nextTry;   ///< of what failed
    Clock::time_point nextDoubt; ///< strangers cannot have more questions asked than one in a while
    Clock::time_point connectedSince;
    Backoff backoff;
};

} // namespace OrvPlatform
