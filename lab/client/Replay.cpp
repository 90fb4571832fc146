// SPDX-License-Identifier: Apache-2.0
#include "client/Replay.h"

#include "client/Edge.h"

namespace OrvLab {

void Replay::Fail(const std::string& expected) const {
    std::string text = call.name + " should: " + expected + "; it does: ";
    text += call.at < call.effects.size() ? call.effects[call.at].what : "nothing more";
    Witness::Current()->sim.Fail(text);
}

void Replay::SkipClocks() {
    for (; call.at < call.effects.size() && call.effects[call.at].what == "clock"; ++call.at)
        clock = call.effects[call.at].result;
}

std::int64_t Replay::Expect(const std::string& what) {
    std::int64_t result = 0;
    if (!Take(what, &result))
        Fail(what);
    return result;
}

bool Replay::Take(const std::string& what, std::int64_t* result) {
    SkipClocks();
    if (call.at == call.effects.size() || call.effects[call.at].what != what)
        return false;
    if (result != nullptr)
        *result = call.effects[call.at].result;
    ++call.at;
    return true;
}

std::string Replay::TakeBeginningWith(const std::string& beginning, std::int64_t* result) {
    SkipClocks();
    if (call.at == call.effects.size() || call.effects[call.at].what.rfind(beginning, 0) != 0)
        return {};
    if (result != nullptr)
        *result = call.effects[call.at].result;
    return call.effects[call.at++].what;
}

Time Replay::Clock() {
    if (call.at < call.effects.size() && call.effects[call.at].what == "clock")
        return clock = call.effects[call.at++].result;
    if (clock == 0)
        Fail("read the clock");
    return clock;
}

void Replay::SkipFiles(const std::string& path) {
    while (!TakeBeginningWith("wrote " + path + "=").empty())
        ;
}

void Replay::ExpectRecord(const char* level, const char* logger, const char* tag, const std::string& text) {
    Expect(Edge::Record(level, logger, tag, text));
}

void Replay::ExpectEnd() {
    SkipClocks();
    if (call.at != call.effects.size())
        Fail("end");
}

std::uint64_t Replay::Reached() const {
    return call.at == 0 ? call.begin : call.effects[call.at - 1].number;
}

} // namespace OrvLab
