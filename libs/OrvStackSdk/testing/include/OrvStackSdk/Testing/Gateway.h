// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "OrvStackSdk/Testing/Broker.h"
#include "OrvStackSdk/Testing/ConnectionManager.h"
#include "OrvStackSdk/Testing/Journal.h"
#include "OrvStackSdk/Testing/Poke.h"

#include <chrono>
#include <functional>
#include <string>

namespace OrvStackSdk {
namespace Testing {

/// Where messages reach the application.
enum class Delivery {
    TEST_THREAD, ///< on the test's thread, inside Publish, Advance and the like: the same order each time
    OWN_THREAD   ///< on a thread of the kit's, as on a gateway: with ThreadSanitizer it shows what is not synchronised
};

/// Which log records the journal takes: those of the level and above.
enum class LogRecords { FROM_TRACE = 0, FROM_DEBUG = 1, FROM_INFO = 2, FROM_WARNING = 3, FROM_ERROR = 4, NONE = 6 };

/// What a gateway is made with.
struct GatewayOptions {
    /// Where messages reach the application.
    Delivery delivery = Delivery::TEST_THREAD;
    /// Which of the library's log records stand in the journal. Beside a delivery thread, records bring locks with
    /// them, which may hide a race.
    LogRecords logRecords = LogRecords::FROM_WARNING;
    /// The folder for the two status files, which must exist; empty: they are kept in memory only.
    std::string statusFolder;
};

/// A gateway in the test's own process: broker, connection manager, cloud and clocks. Make one at the beginning of each
/// test, before the application's clients, and release it after them; there can be one at a time.
///
/// Nothing here reads a real clock, sleeps, opens a socket or writes a file outside the folder that the test names.
/// Time passes in Advance only. It starts at zero, the wall clock at 2026-01-01 00:00 UTC.
///
/// Threads: for one thread, the test's, unless a function says otherwise. There is no other thread, but for the
/// delivery thread if it is asked for.
class Gateway {
public:
    /// Names a timer, for Cancel.
    using Timer = unsigned long;

    /// @throws std::logic_error when there is another one
    explicit Gateway(const GatewayOptions& options = GatewayOptions());
    ~Gateway();
    Gateway(const Gateway&) = delete;
    Gateway& operator=(const Gateway&) = delete;

    /// Lets time pass: everything that falls due meanwhile happens at its time and in order (the application's steps,
    /// messages, connections that come back), and at the end nothing is left to be delivered. What is due at the same
    /// time happens in the order in which it was asked for.
    /// An exception that a step or a callback throws leaves this function; time stands where it was thrown, and such a
    /// step does not run again.
    /// @throws std::invalid_argument when the duration is negative
    void Advance(std::chrono::milliseconds duration);

    /// Lets time pass until `condition` holds; it is asked after everything that happens.
    /// @return false when it does not hold within `limit`
    bool AdvanceUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit);

    /// Delivers what is due now, without a step of time.
    void Settle();

    /// Runs `step` as an application's loop does that waits `interval` after each round: now, that is with the next
    /// Advance, and then every interval.
    /// @throws std::invalid_argument when the interval is not positive
    Timer Every(std::chrono::milliseconds interval, std::function<void()> step);

    /// The same for an application that decides after each round how long it waits.
    /// @param step returns the time until it is to run again; it throws std::invalid_argument out of Advance when that
    ///             is not positive
    Timer Loop(std::function<std::chrono::milliseconds()> step);

    /// Runs `action` once, after the delay. Callable from any thread.
    Timer After(std::chrono::milliseconds delay, std::function<void()> action);

    /// The timer does not run again. Without effect when it has run or is unknown. Callable inside its own step, and
    /// from any thread.
    void Cancel(Timer timer);

    /// Virtual time since the gateway was made. Callable from any thread.
    std::chrono::milliseconds Elapsed() const;

    /// The wall clock, which the library writes into the error file. It goes on with Advance. Callable from any thread.
    std::chrono::system_clock::time_point WallClock() const;

    /// Puts the wall clock right, forwards or backwards; no delay is measured with it.
    void SetWallClock(std::chrono::system_clock::time_point time);

    /// What the library has written last into new_enterprise_statuses.csv; empty when nothing.
    std::string StatusFile() const;

    /// What the library has written last into new_enterprise_errors.csv; empty when nothing.
    std::string ErrorFile() const;

    /// @name What is in the test's hands
    /// @{

    /// The broker.
    Broker broker;
    /// The connection manager.
    ConnectionManager connman;
    /// The cloud, as pokes find it.
    Poke poke;
    /// What happened.
    Journal journal;
    /// @}
};

} // namespace Testing
} // namespace OrvStackSdk
