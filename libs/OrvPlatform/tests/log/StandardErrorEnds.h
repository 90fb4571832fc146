// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "support/LogLines.h"
#include "support/WaitUntil.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>

/// Both ends of what may be a process's standard error, and what comes out of the far one.
namespace OrvPlatform::Testing {

inline void OpenPipe(int& reader, int& writer) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    reader = ends[0];
    writer = ends[1];
}

inline void OpenTerminal(int& reader, int& writer) {
    ASSERT_EQ(::openpty(&reader, &writer, nullptr, nullptr, nullptr), 0) << "no pseudo-terminal";
    ::fcntl(reader, F_SETFD, FD_CLOEXEC);
    ::fcntl(writer, F_SETFD, FD_CLOEXEC);
}

template <int type>
inline void OpenSockets(int& reader, int& writer) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends), 0);
    reader = ends[0];
    writer = ends[1];
}

/// All that there is to read, until nothing comes any more.
inline std::string Drain(int reader) {
    std::string text;
    std::array<char, 16384> buffer{};
    for (pollfd asked{reader, POLLIN, 0}; ::poll(&asked, 1, 50) > 0;) {
        const auto count = ::read(reader, buffer.data(), buffer.size());
        if (count <= 0)
            break;
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return text;
}

inline Lines LogLines(const std::string& text) {
    Lines lines;
    for (std::string line : SplitLines(text)) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(WithoutTime(line));
    }
    return lines;
}

/// What comes until there are so many lines, and a little longer.
inline Lines NextLines(int reader, std::size_t count) {
    std::string text;
    OrvTest::WaitUntil([&] {
        text += Drain(reader);
        return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) >= count;
    });
    return LogLines(text);
}

} // namespace OrvPlatform::Testing
