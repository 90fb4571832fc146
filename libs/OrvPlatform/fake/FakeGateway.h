// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>

namespace OrvPlatformFake {

/// The rest of the gateway: interface names (at first Ethernet is eth0, Cellular is wwan0), the static configuration,
/// the platform's text helpers.
class FakeGateway {
public:
    /// Everything as at the start of a program: journal empty, broker and connection manager fresh.
    static void Reset();

    /// The value of key 0 from now on.
    static void SetCloudEndpoint(const std::string& endpoint);

    /// The connection manager's name of the interface in that role ("Ethernet", "Cellular") from now on.
    static void SetInterfaceName(const std::string& role, const std::string& interfaceName);

    /// Configuration stores that were created and not released.
    static int OpenConfigStores();

    /// A platform whose ToUpper leaves the text as it is.
    static void SetToUpperIdle(bool idle);
};

/// A clock that moves only when it is told to.
template <typename Clock>
class VirtualClock {
public:
    typename Clock::time_point Time() const { return time; }
    void Advance(typename Clock::duration duration) { time += duration; }
    void Set(typename Clock::time_point newTime) { time = newTime; }

    /// What the clock's users take; the clock must outlive them.
    auto Now() {
        return [this] { return time; };
    }

private:
    typename Clock::time_point time{};
};

} // namespace OrvPlatformFake
