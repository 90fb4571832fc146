// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace OrvStackSdk {
namespace Testing {

/// The gateway's connection manager: the interfaces with a connection, in the order of their priority. At first "eth0"
/// before "wwan0", and every order is carried out at once.
///
/// An application learns of its interfaces by means of its own: report what the test does here with
/// IOrvStackClient::EventUpdateRequest, as the application would.
///
/// Threads: callable from any thread.
class ConnectionManager {
public:
    /// The interface has a connection; it takes the last place, unless it has a place already.
    void Appear(const std::string& interfaceName);

    /// The interface has none any more. Orders about it are refused.
    void Disappear(const std::string& interfaceName);

    /// The interfaces with a connection, first the one that has the default route.
    std::vector<std::string> Order() const;

    /// The first of them; empty when there is none.
    std::string Top() const;

    /// Accepts orders from now on and carries none out, or carries them out again.
    void RefuseToMove(bool refuse);

    /// Carries orders out this long after they came. Real ones take some tenths of a second.
    void SetDelay(std::chrono::milliseconds delay);

private:
    friend class Gateway;
    ConnectionManager() = default;
};

} // namespace Testing
} // namespace OrvStackSdk
