// SPDX-License-Identifier: Apache-2.0
// The records that a program logs: by a logger and by the wrapper, with all that may stand in them.
#include "log/LogFaults.h"
#include "log/LogProgram.h"

#include "quillogger/LogWrapper.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <ostream>
#include <string>
#include <utility>

namespace OrvLab {

namespace {

constexpr int CRITICAL = 5;
constexpr int ANY_ERRNO = 77;
constexpr const char* NUMBERS = "1 255 0.5 "; // as they are shown with default flags

CommonUtils::LogObject Opened(CommonUtils::Logger& logger, int level, const char* tag) {
    switch (level) {
    case 0:
        return logger.Trace(tag);
    case 1:
        return logger.Debug(tag);
    case 2:
        return logger.Info(tag);
    case 3:
        return logger.Warning(tag);
    default:
        return logger.Error(tag);
    }
}

/// A value that does something when it is written.
struct Doing {
    const std::function<void(std::ostream& stream)>& what;
};

std::ostream& operator<<(std::ostream& stream, const Doing& doing) {
    const Unwatched unwatched;
    doing.what(stream);
    return stream;
}

/// What the next record must not find.
void Spoil(std::ostream& stream) {
    stream.setf(std::ios::hex, std::ios::basefield);
    stream.setf(std::ios::boolalpha | std::ios::showbase | std::ios::scientific);
    stream.fill('*');
    stream.width(30);
    stream.setstate(std::ios::failbit);
}

/// Through others: what is moved from is empty, takes nothing and emits nothing.
void Move(CommonUtils::LogObject& record) {
    CommonUtils::LogObject other = std::move(record);
    CommonUtils::LogObject third = std::move(other);
    other << "what is moved from takes nothing";
    record = std::move(third);
}

} // namespace

LogProgram::Call& LogProgram::Begin() {
    Use();
    calls.push_back(new Call{possible});
    return *calls.back();
}

void LogProgram::End(Call& call, LogRecordAsked asked, int own, const std::string& source) {
    areRead = true;
    const auto wants = [&](std::size_t version) { return IsWanted(version, source, own, asked.level); };
    LogRecordAsked& record = outputs.Records(asked.thread)[static_cast<std::size_t>(asked.number)];
    record.mustBeThere = std::all_of(call.levels.begin(), call.levels.end(), wants);
    record.mayBeThere = std::any_of(call.levels.begin(), call.levels.end(), wants);
    calls.erase(std::find(calls.begin(), calls.end(), &call));
    delete &call;
    if (errno != ANY_ERRNO)
        sim.Fail("logging changes errno");
}

ForeignText LogProgram::AnyTag() {
    ForeignText tag;
    switch (random.Below(6)) {
    case 0:
        tag.Add("tag");
        break;
    case 1:
        tag.AddAny(random, random.Below(30), false);
        break;
    case 2:
        tag.Add("T", random.OneIn(10) && !outputs.HasLittleRoom() ? 8100 + random.Below(40) : 1);
        break;
    default:
        break;
    }
    return tag;
}

/// @param isShort there is always room for it
ForeignText LogProgram::AnyText(int thread, int number, bool isShort, bool withNul) {
    ForeignText text(random.OneIn(4) ? "(" : "");
    text.Add(LogRecordAsked::Mark(thread, number) + NUMBERS);
    std::size_t bytes = random.Below(40);
    if (!isShort && random.OneIn(6))
        bytes = random.Below(outputs.IsRead() ? 3000 : 5000);
    else if (!isShort && !outputs.HasLittleRoom() && random.OneIn(20))
        bytes = 8150 + random.Below(60);
    if (random.OneIn(2))
        text.Add("x", bytes);
    else
        text.AddAny(random, bytes, withNul);
    text.Add(" end");
    return text;
}

void LogProgram::LogBy(CommonUtils::Logger& logger, const std::string& source, int own, int thread) {
    const int level = random.Between(0, 4);
    const bool hasInner = random.OneIn(12);
    const std::string innerSource = AnySource();
    // A value that is written may log itself: that record comes first.
    const LogRecordAsked inner = hasInner ? AskWrapper(thread, innerSource, CRITICAL, true) : LogRecordAsked();
    const int number = outputs.NextNumber(thread);
    LogRecordAsked fresh{
        thread, number, level, ForeignText::Shown(source), AnyTag(), AnyText(thread, number, false, true)};
    const LogRecordAsked asked = outputs.Add(std::move(fresh));
    const std::string& text = asked.text.Raw();
    const std::string beginning = text.substr(0, text.find('r'));
    const std::string rest = text.substr(text.find(NUMBERS) + std::string(NUMBERS).size());
    const bool isMoved = random.OneIn(6);
    const bool isSpoilt = random.OneIn(6);
    int written = 0;
    const std::function<void(std::ostream&)> count = [&](std::ostream&) {
        ++written;
        if (hasInner)
            CallWrapper(inner, innerSource, CRITICAL);
        errno = ANY_ERRNO;
    };
    const std::function<void(std::ostream&)> spoil = Spoil;
    Call& call = Begin();
    errno = ANY_ERRNO;
    Watch([&] {
        CommonUtils::LogObject record =
            Opened(logger, level, asked.tag.Raw().empty() ? nullptr : asked.tag.Raw().c_str());
        record << beginning << "r" << thread << '.' << number << ' ' << true << ' ' << 255 << ' ' << 0.5 << ' ' << rest;
        record << Doing{count};
        if (isMoved)
            Move(record);
        if (isSpoilt)
            record << Doing{spoil};
    });
    End(call, asked, own, source);
    const LogRecordAsked& known = outputs.Records(thread)[static_cast<std::size_t>(number)];
    if (written != 0 && !known.mayBeThere)
        sim.Fail("formats a record that no level in force allows");
}

LogRecordAsked LogProgram::AskWrapper(int thread, const std::string& source, int level, bool isShort) {
    const int number = outputs.NextNumber(thread);
    LogRecordAsked fresh{thread,
                         number,
                         std::clamp(level, 0, CRITICAL),
                         ForeignText::Shown(source) + ":7",
                         isShort ? ForeignText("tag") : AnyTag(),
                         AnyText(thread, number, isShort, false)};
    return outputs.Add(std::move(fresh));
}

void LogProgram::CallWrapper(const LogRecordAsked& asked, const std::string& source, int level) {
    const std::string file =
        (asked.number % 2 == 0 ? "libs/of/" : "") + source + (asked.number % 3 == 0 ? "" : ".in.cpp");
    const bool flush = random.OneIn(3);
    const int self = sim.Self().number;
    const int before = LogFaults::syncs[self];
    Call& call = Begin();
    errno = ANY_ERRNO;
    Watch([&] {
        quillogger::LogWrapper::Log(level, flush, file.c_str(), 7,
                                    asked.tag.Raw().empty() && flush ? nullptr : asked.tag.Raw().c_str(), "%s",
                                    asked.text.Raw().c_str());
    });
    End(call, asked, 0, source);
    const LogRecordAsked& known = outputs.Records(asked.thread)[static_cast<std::size_t>(asked.number)];
    const bool waited = LogFaults::syncs[self] != before;
    if (flush && known.mustBeThere && outputs.IsFile() && !outputs.HasTrouble() && !waited)
        sim.Fail("a record is not on the storage when the call comes back");
    if (!flush && waited)
        sim.Fail("waits for the storage, and nobody has asked for that");
}

void LogProgram::LogByWrapper(int thread) {
    const std::string source = AnySource();
    const int level = random.Between(-2, 9);
    CallWrapper(AskWrapper(thread, source, level, false), source, level);
}

void LogProgram::MakeLogger(int thread) {
    const std::string source = AnySource();
    const int own = random.OneIn(2) ? 0 : random.Between(-1, 7);
    Use();
    auto logger = Watch([&] { return std::make_unique<CommonUtils::Logger>(source, own); });
    areRead = true;
    if (random.OneIn(6))
        Watch([&] {
            CommonUtils::Logger moved("another", 0);
            moved = std::move(*logger);
            logger = std::make_unique<CommonUtils::Logger>(std::move(moved));
        });
    for (int count = random.Between(1, 3); count > 0; --count)
        LogBy(*logger, source, own, thread);
    Watch([&] { logger.reset(); });
}

} // namespace OrvLab
