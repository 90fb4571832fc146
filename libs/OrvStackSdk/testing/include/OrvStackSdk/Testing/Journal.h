// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace OrvStackSdk {
namespace Testing {

/// What happened on the gateway, in one order: connections, publications, orders to the connection manager, attempts to
/// reach the cloud, status files, and log records from the level that the test asked for.
///
/// Each happening is one line, for instance
///
///     publish retained ORV_Stack "/orv/led/connected_services_green" "On"
///     connman top wwan0
///     poke wwan0 reached the cloud
///     broker lost
///
/// Threads: callable from any thread.
class Journal {
public:
    /// One happening.
    struct Entry {
        std::chrono::milliseconds at; ///< virtual time since the gateway was made
        std::string what;             ///< one line, without a line end
    };

    /// Everything since the gateway was made, or since Clear.
    std::vector<Entry> Entries() const;

    /// The same as text, a line each.
    /// @param beginnings only lines that begin with one of these; all of them when there is none
    std::string Text(const std::vector<std::string>& beginnings = {}) const;

    /// The same with the time in front of each line, in seconds: "12.000 connman top wwan0".
    std::string TimedText(const std::vector<std::string>& beginnings = {}) const;

    /// Notes something of the test's own, so that it stands in the right place among the rest.
    void Note(const std::string& line);

    /// Forgets what has happened so far.
    void Clear();

private:
    friend class Gateway;
    Journal() = default;
};

/// Compares two texts line by line.
/// @return empty when they are the same; otherwise all lines, those that were expected and are missing with "-" in
///         front, those that came unexpected with "+". So any framework shows a readable failure:
///         EXPECT_EQ("", Difference(expected, gateway.journal.Text()))
std::string Difference(const std::string& expected, const std::string& happened);

} // namespace Testing
} // namespace OrvStackSdk
