// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "client/Witness.h"

#include <cstdint>
#include <string>

namespace OrvLab {

/// Compares what a call has done with what the model says, one after the other. What the edge has answered is taken
/// from the call, so that the model goes the same way.
class Replay {
public:
    explicit Replay(Call& compared) : call(compared) {}

    /// @return what the edge has answered
    std::int64_t Expect(const std::string& what);
    /// Whether the next one is this; then it is taken.
    bool Take(const std::string& what, std::int64_t* result = nullptr);
    /// The next one, if it begins so, and takes it; otherwise empty.
    std::string TakeBeginningWith(const std::string& beginning, std::int64_t* result = nullptr);
    /// The time that the route has read, or that it was when it could have done so.
    Time Clock();
    void SkipFiles(const std::string& path);
    /// A record of the library.
    void ExpectRecord(const char* level, const char* logger, const char* tag, const std::string& text);
    void ExpectEnd();
    const Effect& Latest() const { return call.effects[call.at - 1]; }
    /// The number of what was taken last.
    std::uint64_t Reached() const;
    [[noreturn]] void Fail(const std::string& expected) const;

private:
    void SkipClocks();

    Call& call;
    Time clock = 0;
};

} // namespace OrvLab
