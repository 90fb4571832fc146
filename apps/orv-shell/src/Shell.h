// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Callback.h"
#include "Command.h"

#include <OrvStackSdk/IOrvStackClient.h>

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace OrvShell {

/// Whether it is what was expected.
bool Matches(const Callback& callback, const Expectation& expectation);

/// Carries commands out on a client of the library. Not for several threads: one loop makes all calls.
class Shell {
public:
    using Clock = std::chrono::steady_clock;
    using ClientMaker = std::function<std::shared_ptr<OrvStackSdk::IOrvStackClient>()>;
    using Print = std::function<void(const std::string& text)>;

    /// @param maker makes a client, as OrvStackSdk::CreateClient does
    /// @param print takes what a command has to say
    Shell(ClientMaker maker, Print print);

    /// @throws CommandError when no client can be made, with cause and remedy
    void Create();

    /// Carries a command out, or begins to: while Waiting() no further command may be executed.
    /// @throws CommandError when it fails
    void Execute(const Statement& statement, Clock::time_point now);

    /// One step of the route supervision, if there is a client.
    void Tick(std::chrono::milliseconds elapsed);

    /// Fetches the callbacks that have come and remembers them for `expect`.
    std::vector<Callback> TakeCallbacks();
    int CallbackDescriptor() const { return callbacks->Descriptor(); }

    bool Waiting() const { return waitEnd.has_value(); }
    std::optional<Clock::time_point> WaitEnd() const { return waitEnd; }

    /// Ends the wait whose time or whose callback has come.
    /// @throws CommandError when what was expected has not come in time; the wait is over then
    void Advance(Clock::time_point now);

    bool QuitRequested() const { return quitRequested; }

    /// Stops, says good-bye if that has not been done, and lets the client go.
    void Finish();

private:
    OrvStackSdk::IOrvStackClient& Client();
    void Init(const std::string& app);
    bool IsExpectationMet();

    const ClientMaker makeClient;
    const Print print;
    const std::shared_ptr<CallbackQueue> callbacks;
    std::shared_ptr<OrvStackSdk::IOrvStackClient> client;
    bool initialised = false;
    bool quitRequested = false;

    std::optional<Clock::time_point> waitEnd;
    std::optional<Expectation> expected;
    std::deque<Callback> unexpected; // came, and no expect has asked for them
};

} // namespace OrvShell
