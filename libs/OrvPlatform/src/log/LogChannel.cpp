// SPDX-License-Identifier: Apache-2.0
#include "log/LogChannel.h"

#include "base/Tally.h"
#include "log/LogEscape.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <pthread.h>

namespace OrvPlatform {

namespace {

/// A cancelled thread would otherwise unwind out of a noexcept function and end the program.
class CancellationHeld {
public:
    CancellationHeld() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before); }
    ~CancellationHeld() { pthread_setcancelstate(before, nullptr); }
    CancellationHeld(const CancellationHeld&) = delete;
    CancellationHeld& operator=(const CancellationHeld&) = delete;

private:
    int before = 0;
};

class ErrnoKept {
public:
    ErrnoKept() noexcept = default;
    ~ErrnoKept() { errno = before; }
    ErrnoKept(const ErrnoKept&) = delete;
    ErrnoKept& operator=(const ErrnoKept&) = delete;

private:
    const int before = errno;
};

} // namespace

LogChannel::LogChannel(std::unique_ptr<LogOutput> destination) : output(std::move(destination)) {}

void LogChannel::Write(const LogRecord& record) noexcept {
    const ErrnoKept errnoKept;
    const CancellationHeld cancellationHeld;
    const std::lock_guard<std::mutex> guard(mutex);
    try {
        Compose(record);
        output->Write(record.level, record.logger, line);
        if (record.flush)
            output->Flush();
    } catch (const std::exception& failure) {
        NoteLoss(failure.what());
        return;
    }
    try {
        ReportLoss();
    } catch (const std::exception&) {
        // Told with a later record.
    }
}

void LogChannel::Compose(const LogRecord& record) {
    line.clear();
    std::size_t taken = AppendEscaped(record.tag, MAX_RECORD_BYTES, line);
    bool whole = taken == record.tag.size();
    if (!record.tag.empty() && !record.text.empty() && record.text.front() != '(')
        line += ": ";
    const std::size_t room = MAX_RECORD_BYTES - std::min(MAX_RECORD_BYTES, line.size());
    taken = AppendEscaped(record.text, room, line);
    whole = whole && taken == record.textBytes;
    if (!whole)
        line += " [cut, " + std::to_string(record.tag.size() + record.textBytes) + " bytes in all]";
}

void LogChannel::NoteLoss(const char* reason) noexcept {
    tallies.lostLogRecords.Add();
    try {
        if (lost++ == 0) {
            lossReason = Escaped(reason);
            WriteToStderr("The log loses records: " + lossReason);
        }
    } catch (const std::exception&) {
        // Without memory for the message the count must do.
    }
}

void LogChannel::ReportLoss() {
    if (lost == 0)
        return;
    const std::string count = lost == 1 ? "1 record was" : std::to_string(lost) + " records were";
    output->Write(LogLevel::WARNING, "Log", count + " lost before the previous one (" + lossReason + ")");
    lost = 0;
}

} // namespace OrvPlatform
