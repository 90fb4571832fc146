// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace GatewayApp {

/// `text` as a JSON string, quotes included. Bytes that are no ASCII become '?'.
std::string JsonText(const std::string& text);

/// The present time, UTC, with milliseconds.
std::string WallClock();

inline const char* JsonBool(bool value) {
    return value ? "true" : "false";
}

/// A file of JSON objects, one a line, for programs that follow or judge a run. Without a path nothing is written.
class Transcript {
public:
    /// Names and values; a value is JSON already.
    using Fields = std::vector<std::pair<std::string, std::string>>;

    /// @param path the file to append to; empty: none
    /// @throws std::system_error when it cannot be opened
    explicit Transcript(const std::string& path);

    /// Writes one line: "time" (wall clock, UTC), "monotonic" (seconds of CLOCK_MONOTONIC), "what", and the fields.
    /// Lines that could not be written are lost; the next one that can be has their number as "lost_before".
    void Write(const std::string& what, const Fields& fields);

private:
    struct Close {
        void operator()(std::FILE* opened) const { std::fclose(opened); }
    };

    std::unique_ptr<std::FILE, Close> file; // without a buffer: a line that was refused is not tried again
    std::uint64_t lost = 0;
    bool torn = false; // the file ends in the middle of a line
};

} // namespace GatewayApp
