// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace OrvPlatformFake {

/// The connection manager behind the fake ConnmanCommands: connected services in an order, which a request for top
/// priority changes. Callable from any thread.
class FakeConnman {
public:
    static FakeConnman& Get();

    /// eth0 before wwan0, obedient.
    void Reset();

    /// The interfaces of the connected services, first the one with top priority; empty for a connection manager that
    /// is away.
    void SetOrder(std::vector<std::string> interfaces);
    std::vector<std::string> Order() const;

    /// An obedient connection manager carries requests out at once; the other one accepts them and does nothing.
    void SetObedient(bool obedient);

    /// Called at the start of every command, on the calling thread, with the journal's line of it; may throw. Empty for
    /// none.
    void SetCommandHook(std::function<void(const std::string& line)> hook);

private:
    FakeConnman() = default;
};

} // namespace OrvPlatformFake
