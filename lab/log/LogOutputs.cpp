// SPDX-License-Identifier: Apache-2.0
#include "log/LogOutputs.h"

#include "log/LogFaults.h"

#include "OrvPlatform/Counters.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
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
constexpr std::array<const char*, 6> PRIORITIES = {"7", "7", "6", "4", "3", "2"};
constexpr int DAEMON = 24; // syslog's number for the facility
constexpr int MOST_FILES = 100;
constexpr std::size_t MOST_BYTES = 16384;

/// What is told of a fault goes where it went before standard error became a pipe.
void ReportTo(int descriptor) {
    stderr = fdopen(descriptor, "w");
    setvbuf(stderr, nullptr, _IONBF, 0);
#ifdef ORV_LAB_REPORTS
    // NOLINTNEXTLINE(performance-no-int-to-ptr): as the interface has it
    __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<std::intptr_t>(descriptor)));
#endif
}

long long Milliseconds() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1'000'000;
}

std::string TimeText(long long milliseconds) {
    char text[40];
    const std::time_t seconds = milliseconds / 1000;
    std::tm parts{};
    const std::size_t size = std::strftime(text, sizeof(text), "%FT%T", gmtime_r(&seconds, &parts));
    std::snprintf(text + size, sizeof(text) - size, ".%03dZ", static_cast<int>(milliseconds % 1000));
    return text;
}

bool BeginsWith(const std::string& text, const std::string& beginning) {
    return text.rfind(beginning, 0) == 0;
}

bool IsDigit(char letter) {
    return letter >= '0' && letter <= '9';
}

/// A line of what is said directly on standard error.
bool IsComplaint(const std::string& line) {
    return line.rfind("The log loses records", 0) == 0;
}

} // namespace

LogPlace LogPlace::Any(Random& random) {
    constexpr int files[] = {1, 2, 3, 5, MOST_FILES, MOST_FILES, MOST_FILES, MOST_FILES};
    LogPlace place;
    place.kind = static_cast<Kind>(random.Weighted({8, 3, 2, 2}));
    place.hasLittleRoom = random.OneIn(2);
    place.hasTrouble = random.OneIn(4) && (place.kind == Kind::FILE || place.kind == Kind::SYSLOG);
    place.isJournal = random.OneIn(3) && (place.kind == Kind::PIPE || place.kind == Kind::SOCKET);
    place.lacksFolder = random.OneIn(3);
    place.files = files[random.Below(std::size(files))];
    return place;
}

/// As the log writes it.
struct LogOutputs::Line {
    std::string time;
    std::string level;
    std::string logger;
    std::string text;
};

LogOutputs::LogOutputs(Simulation& simulation, const LogPlace& where)
    : sim(simulation), place(where), folder("/tmp/orv-explore-log-XXXXXX"), begun(Milliseconds()) {
    if (mkdtemp(folder.data()) == nullptr)
        sim.Fail("no folder for the log");
    sim.SetFailureListener([this] { Remove(); });
    if (!place.lacksFolder)
        mkdir((folder + "/logs").c_str(), 0700);
    LogFaults::files = folder + "/logs/";
    LogFaults::syslog = folder + "/syslog";
    LogFaults::syncs.clear();
    Heal();
    MakeReader();
}

void LogOutputs::MakeReader() {
    int ends[2] = {-1, open("/dev/null", O_WRONLY | O_CLOEXEC)};
    if (place.kind == LogPlace::Kind::PIPE || place.kind == LogPlace::Kind::SOCKET) {
        close(ends[1]);
        const bool isPipe = place.kind == LogPlace::Kind::PIPE;
        constexpr int few = 4096;
        if (isPipe ? pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0
                   : socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0)
            sim.Fail("no reader for the log");
        if (HasLittleRoom())
            fcntl(ends[1], F_SETPIPE_SZ, few);
    }
    reading = ends[0];
    formerError = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    ReportTo(formerError);
    struct stat target {};
    fstat(STDERR_FILENO, &target);
    const std::string stream = std::to_string(target.st_dev) + ":" + std::to_string(target.st_ino);
    place.isJournal ? setenv("JOURNAL_STREAM", stream.c_str(), 1) : unsetenv("JOURNAL_STREAM");
    if (place.kind == LogPlace::Kind::SYSLOG)
        Listen();
}

/// The syslog daemon begins. What has come to the former one has been read.
void LogOutputs::Listen() {
    unlink(LogFaults::syslog.c_str());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    LogFaults::syslog.copy(address.sun_path, sizeof(address.sun_path) - 1);
    reading = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (bind(reading, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        sim.Fail("no syslog daemon");
}

LogOutputs::~LogOutputs() {
    dup2(formerError, STDERR_FILENO);
    if (reading >= 0)
        close(reading);
    sim.SetFailureListener(nullptr);
    LogFaults::files.clear();
    Remove();
}

void LogOutputs::Remove() const {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

std::string LogOutputs::LogFile(int number) const {
    return folder + "/logs/log" + (number == 0 ? "" : "." + std::to_string(number));
}

std::string LogOutputs::Settings(bool other) const {
    constexpr const char* sinks[] = {"file", "stderr", "stderr", "syslog"};
    const std::string file = other ? folder + "/logs/other" : LogFile(0);
    return "[log]\nsink = " + std::string(other ? "file" : sinks[static_cast<std::size_t>(place.kind)]) +
           "\nfile = " + file + "\nfile_max_bytes = " + std::to_string(other ? MOST_BYTES + 1 : MOST_BYTES) +
           "\nfile_count = " + std::to_string(other ? 7 : place.files) + "\n";
}

void LogOutputs::Trouble(Random& random) {
    Heal();
    // A forked child has the daemon's socket, too: that would live on, and take what nobody reads.
    const bool wouldLiveOn = place.kind == LogPlace::Kind::SYSLOG && sim.IsForking();
    if (!place.hasTrouble || random.OneIn(2) || wouldLiveOn)
        return;
    ++troubles;
    if (place.kind == LogPlace::Kind::SYSLOG) {
        Drain();
        close(std::exchange(reading, -1));
        unlink(LogFaults::syslog.c_str());
        // Where there is always one, nothing is lost with the former.
        if (place.hasLittleRoom || random.OneIn(2))
            Listen();
        return;
    }
    switch (random.Below(3)) {
    case 0:
        LogFaults::openError = random.OneIn(2) ? EMFILE : EACCES;
        break;
    case 1:
        LogFaults::renameError = EROFS;
        break;
    default:
        LogFaults::room = random.OneIn(2) ? 0 : random.Below(3000);
    }
}

void LogOutputs::Heal() {
    LogFaults::room = LogFaults::ROOM;
    LogFaults::openError = 0;
    LogFaults::renameError = 0;
    if (place.kind == LogPlace::Kind::SYSLOG && reading < 0 && formerError >= 0)
        Listen();
}

void LogOutputs::Drain() {
    std::array<char, 65536> piece{};
    // Not read(): another thread would go on there, and might close the reader or give its number to something else.
    iovec all{piece.data(), piece.size()};
    for (ssize_t count = 0; (count = readv(reading, &all, 1)) > 0;) {
        read.append(piece.data(), static_cast<std::size_t>(count));
        if (place.kind == LogPlace::Kind::SYSLOG)
            read += '\n'; // what is sent has no end of a line
    }
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
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const std::string target = std::filesystem::read_symlink(entry, gone).string();
        const int number = std::atoi(entry.path().filename().c_str());
        struct stat status {};
        const bool isLog =
            target.rfind(folder + "/logs", 0) == 0 || (place.kind == LogPlace::Kind::SYSLOG && number != reading &&
                                                       fstat(number, &status) == 0 && S_ISSOCK(status.st_mode));
        ++(isLog ? logs : others);
        if (isLog && (fcntl(number, F_GETFD) & FD_CLOEXEC) == 0)
            sim.Fail("a program that is started inherits the log");
    }
    return others + std::max(0, logs - 1);
}

/// From the oldest file to the newest.
std::string LogOutputs::Written() {
    if (IsRead())
        return read;
    std::string text;
    for (int number = place.files - 1; number >= 0; --number) {
        std::ifstream file(LogFile(number), std::ios::binary);
        text.append(std::istreambuf_iterator<char>(file), {});
        if (number > 0 && place.hasTrouble && !text.empty() && text.back() != '\n')
            text += '\n'; // the disk was full in the midst of its last line
    }
    return text;
}

/// Each has been filled before the next was begun, there are not too many, and strangers cannot read them.
void LogOutputs::CheckFiles() {
    isDropped = access(LogFile(place.files - 1).c_str(), F_OK) == 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder + "/logs")) {
        struct stat status {};
        stat(entry.path().c_str(), &status);
        bool isMeant = false;
        for (int number = 0; number < place.files; ++number)
            isMeant = isMeant || entry.path() == LogFile(number);
        if (!isMeant)
            sim.Fail("a file of the log that nobody wants: " + entry.path().filename().string());
        constexpr unsigned allowed = 0640;
        if ((status.st_mode & ALLPERMS & ~allowed) != 0)
            sim.Fail("a file of the log has too many rights");
        if (status.st_size > static_cast<off_t>(MOST_BYTES))
            sim.Fail("a file of the log has " + std::to_string(status.st_size) + " bytes");
    }
    for (int number = 1; number < place.files && !place.hasTrouble; ++number) {
        std::error_code none;
        const auto size = std::filesystem::file_size(LogFile(number), none);
        std::ifstream next(LogFile(number - 1));
        std::string line;
        if (!none && (!std::getline(next, line) || size + line.size() + 1 <= MOST_BYTES))
            sim.Fail("a file of the log was ended with " + std::to_string(size) + " bytes before a line of " +
                     std::to_string(line.size()));
    }
}

std::string LogOutputs::TimeOfBeginning() const {
    return TimeText(begun);
}

std::string LogOutputs::TimeOfNow() {
    return TimeText(Milliseconds());
}

void LogOutputs::CheckTime(const std::string& time) {
    std::tm parts{};
    int milliseconds = 0;
    char end = '\0';
    if (std::sscanf(time.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%3d%c", &parts.tm_year, &parts.tm_mon, &parts.tm_mday,
                    &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &milliseconds, &end) != 8 ||
        end != 'Z')
        sim.Fail("a time of the log is none: " + time);
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    const long long told = timegm(&parts) * 1000LL + milliseconds;
    if (told < begun || told > Milliseconds())
        sim.Fail("the log says that it is " + time);
    if (time < lastTime)
        sim.Fail("the log's time goes back from " + lastTime + " to " + time);
    lastTime = time;
}

/// What stands before a line for the journal or the syslog daemon.
bool LogOutputs::TakePriority(std::string& line, std::string& priority) const {
    if (!place.isJournal && place.kind != LogPlace::Kind::SYSLOG)
        return true;
    const std::size_t end = line.find('>');
    if (line.empty() || line.front() != '<' || end == std::string::npos)
        return false;
    priority = line.substr(1, end - 1);
    line.erase(0, end + 1);
    if (place.kind != LogPlace::Kind::SYSLOG)
        return true;
    const std::string sender = program_invocation_short_name + ("[" + std::to_string(getpid())) + "]: ";
    if (line.rfind(sender, 0) != 0 || std::stoi(priority) < DAEMON)
        return false;
    priority = std::to_string(std::stoi(priority) - DAEMON);
    line.erase(0, sender.size());
    return true;
}

std::optional<LogOutputs::Line> LogOutputs::Parsed(std::string line) {
    constexpr std::size_t time = 24;
    std::string priority;
    if (!TakePriority(line, priority))
        return std::nullopt;
    Line parts;
    if (place.kind != LogPlace::Kind::SYSLOG) {
        if (line.size() <= time || line.substr(time - 1, 2) != "Z ")
            return std::nullopt;
        parts.time = line.substr(0, time);
        line.erase(0, time + 1);
    }
    const auto open = line.find(" [");
    const auto close = line.find("] ");
    if (close == std::string::npos || open > close)
        return std::nullopt;
    parts.level = line.substr(0, open);
    parts.logger = line.substr(open + 2, close - open - 2);
    parts.text = line.substr(close + 2);
    const auto level = std::find(LEVELS.begin(), LEVELS.end(), parts.level);
    if (level == LEVELS.end() ||
        (!priority.empty() && priority != PRIORITIES[static_cast<std::size_t>(level - LEVELS.begin())]))
        return std::nullopt;
    return parts;
}

void LogOutputs::CheckRecord(const Line& parts, const std::string& line) {
    const auto [thread, number] = LogRecordAsked::Marked(parts.text);
    if (records.count(thread) == 0 || number >= NextNumber(thread)) {
        if (IsCut(line))
            return;
        sim.Fail("a line of the log that nobody has asked for: " + line);
    }
    LogRecordAsked& record = records[thread][static_cast<std::size_t>(number)];
    if (parts.text != record.Shown() || parts.logger != record.logger ||
        parts.level != LEVELS[static_cast<std::size_t>(record.level)]) {
        if (IsCut(line))
            return;
        sim.Fail("a record is not as it was asked for: " + line + "\nbut: " + record.Shown());
    }
    if (!record.mayBeThere)
        sim.Fail("a record is there that no level in force allows: " + line);
    if (std::exchange(record.seen, true) || cutRecords.count({thread, number}) != 0)
        sim.Fail("a record is there twice: " + line);
    if (latest.count(thread) != 0 && latest[thread] > number)
        sim.Fail("a record is behind a later one of its thread: " + line);
    latest[thread] = number;
    earliest.try_emplace(thread, number);
}

/// A full disk may cut a line: what there is of it is the beginning of a record that does not count as there.
bool LogOutputs::IsCut(const std::string& line) {
    if (!place.hasTrouble || !IsFile() || !IsBeginning(line))
        return false;
    ++cut;
    const auto [thread, number] = LogRecordAsked::Marked(line);
    if (thread >= 0)
        cutRecords.insert({thread, number});
    return true;
}

bool LogOutputs::IsBeginning(std::string line) const {
    if (place.isJournal) {
        const auto isOne = [&](const std::string& priority) {
            return BeginsWith("<" + priority + ">", line.substr(0, 3));
        };
        if (std::none_of(PRIORITIES.begin(), PRIORITIES.end(), isOne))
            return false;
        line.erase(0, 3);
    }
    const std::string first = std::max(TimeOfBeginning(), lastTime);
    const std::size_t size = std::min(line.size(), first.size());
    for (std::size_t at = 0; at < size; ++at)
        if (IsDigit(first[at]) ? !IsDigit(line[at]) : line[at] != first[at])
            return false;
    const std::string time = line.substr(0, size);
    if (time < first.substr(0, size) || time > TimeOfNow().substr(0, size))
        return false;
    line.erase(0, size);
    if (line.empty())
        return true;
    return line.front() == ' ' && (IsBeginningOfRecord(line.substr(1)) || IsBeginningOfLoss(line.substr(1)) ||
                                   IsBeginningOfNews(time, line.substr(1)));
}

bool LogOutputs::IsBeginningOfRecord(const std::string& line) const {
    for (const auto& [thread, all] : records)
        for (const LogRecordAsked& record : all) {
            const std::string head = LEVELS[static_cast<std::size_t>(record.level)] + (" [" + record.logger + "] ");
            if (record.mayBeThere && !record.seen && BeginsWith(head, line.substr(0, head.size())) &&
                BeginsWith(head + record.Shown(), line))
                return true;
        }
    return false;
}

bool LogOutputs::IsBeginningOfNews(const std::string& time, const std::string& line) const {
    return std::any_of(LEVELS.begin(), LEVELS.end(), [&](const char* level) {
        const std::string head = level + std::string(" [GatewayConfig] ");
        return BeginsWith(head, line.substr(0, head.size())) &&
               news.MayBegin(time, level, line.substr(std::min(head.size(), line.size())));
    });
}

bool LogOutputs::IsBeginningOfLoss(const std::string& line) const {
    const std::string head = "warning [Log] ";
    return line.size() <= head.size() ? BeginsWith(head, line)
                                      : BeginsWith(line, head) && IsLoss(line.substr(head.size()), false);
}

/// @param isWhole to its end
bool LogOutputs::IsLoss(const std::string& text, bool isWhole) const {
    const std::string count = text.substr(0, text.find_first_not_of("0123456789"));
    constexpr std::size_t mostDigits = 9;
    if (count.empty() || count.size() > mostDigits ||
        (!isWhole && std::stoul(count) > OrvPlatform::ReadCounters().lostLogRecords))
        return false;
    const std::string head =
        count + (count == "1" ? " record was" : " records were") + " lost before the previous one (";
    std::vector<std::string> places{IsFile()                               ? LogFile(0)
                                    : place.kind == LogPlace::Kind::SYSLOG ? "/dev/log"
                                                                           : "standard error"};
    for (int number = 1; number < place.files && IsFile(); ++number)
        places.push_back(LogFile(number));
    std::vector<std::string> reasons{"its reader does not keep up"};
    for (const int error : {EMFILE, EACCES, EROFS, ENOSPC, ECONNREFUSED, ENOENT, EAGAIN})
        reasons.emplace_back(std::strerror(error)); // NOLINT(concurrency-mt-unsafe): nobody else is there
    for (const std::string& where : places)
        for (const std::string& reason : reasons) {
            const std::string whole = head + where + ": " + reason + ")";
            if (isWhole ? text == whole : BeginsWith(whole, text))
                return true;
        }
    return false;
}

void LogOutputs::CheckLine(const std::string& line) {
    const bool isStandardError = place.kind == LogPlace::Kind::PIPE || place.kind == LogPlace::Kind::SOCKET;
    if (isStandardError && IsComplaint(line)) {
        ++complaints;
        return;
    }
    const std::optional<Line> parts = Parsed(line);
    if (!parts && isStandardError && line.find("gateway.ini") != std::string::npos) {
        newsWithoutTime.push_back({"error", line}); // what is wrong with the settings is said there, too
        return;
    }
    if (!parts && !IsCut(line))
        sim.Fail("a line of the log is not whole: " + line);
    if (!parts)
        return;
    if (!parts->time.empty())
        CheckTime(parts->time);
    if (parts->logger == "GatewayConfig") {
        if (parts->time.empty())
            newsWithoutTime.push_back({parts->level, parts->text});
        else if (!news.Take(parts->time, parts->level, parts->text) && !IsCut(line))
            FailWithNews(line);
        ++found[parts->text];
        return;
    }
    if (parts->logger == "Log" && IsLoss(parts->text, true)) {
        ++reports;
        lost += std::stoul(parts->text);
        if (parts->level != "warning")
            sim.Fail("a loss is no warning: " + line);
        if (place.kind == LogPlace::Kind::SYSLOG && place.hasLittleRoom &&
            parts->text.find("Connection refused") != std::string::npos)
            sim.Fail("a record is lost though there is a syslog daemon: " + line);
        return;
    }
    CheckRecord(*parts, line);
}

void LogOutputs::FailWithNews(const std::string& line) {
    sim.Fail("the log says of its settings what they have not caused just then: " + line);
}

/// The oldest file is gone with the oldest records of all threads.
bool LogOutputs::MayBeDropped(int thread, int number) const {
    const auto first = earliest.find(thread);
    return isDropped && (first == earliest.end() || number < first->second);
}

void LogOutputs::CheckMissing(bool lossesAreTold) {
    std::size_t missing = 0;
    std::size_t mayBeMissing = 0;
    std::string first;
    for (const auto& [thread, all] : records)
        for (const LogRecordAsked& record : all) {
            mayBeMissing += record.mayBeThere && !record.seen ? 1 : 0;
            if (record.mustBeThere && !record.seen && !MayBeDropped(thread, record.number) && missing++ == 0)
                first = record.logger + ", " + record.Shown().substr(0, 20);
        }
    const std::size_t counted = OrvPlatform::ReadCounters().lostLogRecords;
    const std::size_t unfinished = isUnfinished ? 1 : 0; // its rest comes with the next record, and there is none
    const auto told = [&] {
        return std::to_string(missing) + " records are missing, " + std::to_string(lost) + " are said to be lost and " +
               std::to_string(counted) + " are counted; the first one: " + first;
    };
    if (missing > counted + unfinished || (lossesAreTold && missing > lost + unfinished))
        sim.Fail(told());
    if (lossesAreTold && !isDropped && lost != counted)
        sim.Fail("not all losses are told: " + told());
    // Those of the settings are not known one by one.
    const std::size_t ofSettings = 8 * (readAnew + 1);
    if (counted > mayBeMissing + unfinished + troubles + cut + ofSettings)
        sim.Fail("more is counted as lost than is missing: " + told());
    if (counted != 0 && IsFile() && !place.hasTrouble)
        sim.Fail("a file loses records");
    if (complaints > reports + 1)
        sim.Fail("the same loss is said again and again");
}

void LogOutputs::Check(bool lossesAreTold) {
    if (IsRead())
        Drain();
    else if (access((folder + "/logs").c_str(), F_OK) == 0)
        CheckFiles();
    std::istringstream lines(Written());
    for (std::string line; std::getline(lines, line);) {
        if (!lines.eof())
            CheckLine(line);
        else if (IsRead() ? IsBeginning(line) : IsCut(line))
            isUnfinished = true;
        else
            sim.Fail("the last line of the log is not whole: " + line);
    }
    for (const auto& [level, text] : newsWithoutTime)
        if (!news.Take({}, level, text))
            FailWithNews(text);
    CheckMissing(lossesAreTold);
    if (!IsFile() || place.hasTrouble || isDropped)
        return;
    for (const auto& [text, count] : expected)
        if (found[text] < count)
            sim.Fail("the log says " + std::to_string(found[text]) + " times and not " + std::to_string(count) + ": " +
                     text);
}

} // namespace OrvLab
