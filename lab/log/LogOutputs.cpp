// SPDX-License-Identifier: Apache-2.0
#include "log/LogOutputs.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#include <sanitizer/common_interface_defs.h>
#define ORV_LAB_REPORTS
#endif
#endif

namespace OrvLab {

namespace {

constexpr std::array<const char*, 6> LEVELS = {"trace", "debug", "info", "warning", "error", "critical"};
constexpr int FILES = 100;

/// What is told of a fault goes where it went before standard error became a pipe.
void ReportTo(int descriptor) {
    stderr = fdopen(descriptor, "w");
    setvbuf(stderr, nullptr, _IONBF, 0);
#ifdef ORV_LAB_REPORTS
    // NOLINTNEXTLINE(performance-no-int-to-ptr): as the interface has it
    __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::intptr_t>(descriptor)));
#endif
}

} // namespace

/// As the log writes it; the time is not looked at.
struct LogOutputs::Line {
    std::string level;
    std::string logger;
    std::string text;
};

std::optional<LogOutputs::Line> LogOutputs::Parsed(const std::string& line) {
    constexpr std::size_t time = 24;
    const std::string tag = "tag: ";
    const auto open = line.find(" [");
    const auto close = line.find("] ");
    if (line.size() <= time || line.substr(time - 1, 2) != "Z " || open <= time || close == std::string::npos ||
        open > close)
        return std::nullopt;
    std::string text = line.substr(close + 2);
    if (text.rfind(tag, 0) == 0)
        text.erase(0, tag.size());
    return Line{line.substr(time + 1, open - time - 1), line.substr(open + 2, close - open - 2), text};
}

std::string LogRecordAsked::Text() const {
    return "r" + std::to_string(thread) + "." + std::to_string(number) + " " + std::string(padding, 'x') + " end";
}

LogOutputs::LogOutputs(Simulation& simulation, bool toPipe, bool withLittleRoom)
    : sim(simulation), folder("/tmp/orv-explore-log-XXXXXX") {
    if (mkdtemp(folder.data()) == nullptr)
        sim.Fail("no folder for the log");
    sim.SetFailureListener([this] { Remove(); });
    int ends[2] = {-1, open("/dev/null", O_WRONLY | O_CLOEXEC)};
    if (toPipe) {
        close(ends[1]);
        if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
            sim.Fail("no pipe for the log");
        if (withLittleRoom)
            fcntl(ends[1], F_SETPIPE_SZ, 4096);
    }
    reading = ends[0];
    formerError = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    ReportTo(formerError);
}

LogOutputs::~LogOutputs() {
    dup2(formerError, STDERR_FILENO);
    if (reading >= 0)
        close(reading);
    sim.SetFailureListener(nullptr);
    Remove();
}

void LogOutputs::Remove() const {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

std::string LogOutputs::Settings() const {
    return "[log]\n" + (IsPipe() ? std::string("sink = stderr\n")
                                 : "sink = file\nfile = " + folder +
                                       "/log\nfile_max_bytes = 16384\nfile_count = " + std::to_string(FILES) + "\n");
}

void LogOutputs::Drain() {
    std::array<char, 4096> piece{};
    for (ssize_t count = 0; (count = ::read(reading, piece.data(), piece.size())) > 0;)
        piped.append(piece.data(), static_cast<std::size_t>(count));
}

LogRecordAsked& LogOutputs::Add(LogRecordAsked record) {
    auto& all = records[record.thread];
    all.push_back(std::move(record));
    return all.back();
}

int LogOutputs::OpenDescriptors() const {
    int logs = 0;
    int others = 0;
    std::error_code gone; // the one that reads this folder
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++(std::filesystem::read_symlink(entry, gone).string().rfind(folder + "/log", 0) == 0 ? logs : others);
    return others + std::max(0, logs - 1);
}

/// From the oldest file to the newest.
std::string LogOutputs::Written() const {
    if (IsPipe())
        return piped;
    std::string text;
    for (int number = FILES; number >= 0; --number) {
        std::ifstream file(folder + "/log" + (number == 0 ? "" : "." + std::to_string(number)), std::ios::binary);
        text.append(std::istreambuf_iterator<char>(file), {});
    }
    return text;
}

void LogOutputs::CheckRecord(const Line& parts, const std::string& line) {
    int thread = 0;
    int number = 0;
    if (std::sscanf(parts.text.c_str(), "r%d.%d ", &thread, &number) != 2 || number >= NextNumber(thread))
        sim.Fail("a line of the log that nobody has asked for: " + line);
    LogRecordAsked& record = records[thread][static_cast<std::size_t>(number)];
    if (parts.text != record.Text() || parts.logger != record.logger ||
        parts.level != LEVELS[static_cast<std::size_t>(record.level)])
        sim.Fail("a record is not as it was asked for: " + line);
    if (!record.mayBeThere)
        sim.Fail("a record is there that no level in force allows: " + line);
    if (std::exchange(record.seen, true))
        sim.Fail("a record is there twice: " + line);
    if (latest.count(thread) != 0 && latest[thread] > number)
        sim.Fail("a record is behind a later one of its thread: " + line);
    latest[thread] = number;
}

void LogOutputs::CheckLine(const std::string& line) {
    if (IsPipe() && line.rfind("The log loses records", 0) == 0)
        return;
    const std::optional<Line> parts = Parsed(line);
    const bool isOfSettings = parts
                                  ? parts->logger == "GatewayConfig"
                                  : IsPipe() && line.find("gateway.ini") != std::string::npos; // on standard error, too
    if (isOfSettings)
        return;
    if (!parts)
        sim.Fail("a line of the log is not whole: " + line);
    if (parts->logger == "Log" && parts->text.find(" lost before the previous one (") != std::string::npos)
        lost += std::stoul(parts->text);
    else
        CheckRecord(*parts, line);
}

void LogOutputs::Check(bool lossesAreTold) {
    if (IsPipe())
        Drain();
    std::istringstream lines(Written());
    for (std::string line; std::getline(lines, line);) {
        if (!lines.eof())
            CheckLine(line);
        else if (IsPipe())
            ++lost; // the rest comes with the next record, and there is none
        else
            sim.Fail("the last line of the log is not whole: " + line);
    }
    std::size_t missing = 0;
    std::string first;
    for (const auto& [thread, all] : records)
        for (const LogRecordAsked& record : all)
            if (record.mustBeThere && !record.seen && missing++ == 0)
                first = record.logger + ", " + record.Text().substr(0, 20);
    if (missing > lost && lossesAreTold)
        sim.Fail(std::to_string(missing) + " records are missing, and " + std::to_string(lost) +
                 " are said to be lost; the first one: " + first);
    if (lost != 0 && !IsPipe())
        sim.Fail("a file loses records");
}

} // namespace OrvLab
