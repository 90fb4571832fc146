// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ChildProgram.h"
#include "PrivateNetwork.h"
#include "RouteKeeper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>

namespace OrvSourceRoutes {

/// The program under test as a child process.
class Program : public PrivateNetwork::ChildProgram {
public:
    /// @param bus the message bus on which it looks for ConnMan: never this machine's own
    explicit Program(const std::string& log = {}, const std::string& bus = "unix:path=/nonexistent/bus")
        : ChildProgram({"env", "DBUS_SYSTEM_BUS_ADDRESS=" + bus, ORV_SOURCE_ROUTES, "--interface", "eth0=1011",
                        "--interface", "wwan0=1012"},
                       log) {}
};

/// A file for a program's log, gone with the object.
struct LogFile {
    LogFile() { close(mkstemp(path.data())); }
    ~LogFile() { std::remove(path.c_str()); }

    std::ptrdiff_t LinesWith(const std::string& text) const {
        std::ifstream file(path);
        std::ptrdiff_t lines = 0;
        for (std::string line; std::getline(file, line);)
            lines += line.find(text) != std::string::npos ? 1 : 0;
        return lines;
    }

    std::string path = testing::TempDir() + "orv-source-routes-XXXXXX";
};

inline bool Shell(const std::string& command) {
    return std::system(command.c_str()) == 0; // NOLINT(concurrency-mt-unsafe): one thread
}

/// This program's entries in the kernel, routes and rules together.
inline std::size_t OwnEntries() {
    OrvNetlink::Socket requests;
    const Snapshot now = ReadSnapshot(requests).value();
    const auto own = [](const auto& entry) { return entry.protocol == OWN_PROTOCOL; };
    return static_cast<std::size_t>(std::count_if(now.routes.begin(), now.routes.end(), own) +
                                    std::count_if(now.rules.begin(), now.rules.end(), own));
}

} // namespace OrvSourceRoutes
