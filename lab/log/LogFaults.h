// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <map>
#include <string>

namespace OrvLab {

/// What the calls for the log's files meet, and how often storage was waited for.
struct LogFaults {
    static constexpr std::size_t ROOM = static_cast<std::size_t>(-1);

    /// The files that this is about begin so; empty: none.
    static std::string files;
    /// How many more bytes the disk takes.
    static std::size_t room;
    static int openError;
    static int renameError;
    /// The socket in the place of /dev/log.
    static std::string syslog;
    /// By the thread's number.
    static std::map<int, int> syncs;
};

} // namespace OrvLab
