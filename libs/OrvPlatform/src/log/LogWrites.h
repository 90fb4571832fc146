// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string_view>

namespace OrvPlatform {

/// How far a write came: all of it when there was no error.
struct Written {
    std::size_t bytes = 0;
    int error = 0; // an errno value
};

/// Writes to a file. Neither SIGPIPE nor SIGXFSZ reaches the program on account of it.
Written WriteAll(int file, std::string_view text) noexcept;

/// Writes to a descriptor that the program shares with others, as standard error is, and never waits for whoever reads
/// it: EAGAIN says that there was no room for (all of) the text. The descriptor and its flags are left as they are. A
/// text of at most PIPE_BUF bytes goes into a pipe whole or not at all.
Written WriteWithoutWaiting(int descriptor, std::string_view text) noexcept;

} // namespace OrvPlatform
