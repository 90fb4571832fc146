// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>

namespace OrvStackSdk {
namespace Testing {

/// The cloud as the route supervision sees it: what becomes of its TLS connections ("pokes") over each interface. At
/// first every interface reaches the cloud at once.
///
/// What is set holds for attempts that begin later; the attempt that is under way goes on as it began.
///
/// Threads: callable from any thread.
class Poke {
public:
    /// The cloud answers `after` that time. 15 s or more is too late: the supervision gives such an attempt up.
    void Reaches(const std::string& interfaceName, std::chrono::milliseconds after = std::chrono::milliseconds(0));

    /// The attempt fails `after` that time.
    /// @param code libcurl's error code, which the log record names: 6 no such host, 7 no connection, 28 timed out,
    ///             60 a certificate that is not trusted, ...
    void Fails(const std::string& interfaceName, int code,
               std::chrono::milliseconds after = std::chrono::milliseconds(0));

    /// Nothing comes back at all; the attempt fails with code 28 after 15 s.
    void Hangs(const std::string& interfaceName);

    /// How many attempts have begun over the interface.
    int Attempts(const std::string& interfaceName) const;

private:
    friend class Gateway;
    Poke() = default;
};

} // namespace Testing
} // namespace OrvStackSdk
