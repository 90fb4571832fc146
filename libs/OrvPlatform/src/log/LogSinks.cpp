// SPDX-License-Identifier: Apache-2.0
#include "log/LogSinks.h"

#include "base/FileDescriptor.h"
#include "base/Text.h"
#include "log/LogLayout.h"
#include "log/LogWrites.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

namespace OrvPlatform {

namespace {

/// Time, level, logger and text as a line.
void AppendLine(LogLevel level, std::string_view logger, std::string_view text, std::string& line) {
    AppendTime(std::chrono::system_clock::now(), line);
    line += ' ';
    AppendRecord(level, logger, text, line);
    line += '\n';
}

[[noreturn]] void Fail(const std::string& what, int error) {
    throw LogLoss(what + ": " + ErrorText(error));
}

/// Remembers when a failed write left the beginning of a line behind, so that the next record does not continue it.
class LineWriter {
public:
    Written Write(int file, std::string_view line) {
        std::size_t mended = 0;
        if (midLine) {
            const Written end = WriteAll(file, "\n");
            if (end.error != 0)
                return end;
            mended = 1;
        }
        Written written = WriteAll(file, line);
        midLine = written.bytes > 0 && written.error != 0;
        written.bytes += mended;
        return written;
    }

    void BeginFile() { midLine = false; }

private:
    bool midLine = false;
};

int Severity(LogLevel level) {
    switch (level) {
    case LogLevel::TRACE:
    case LogLevel::DEBUG:
        return LOG_DEBUG;
    case LogLevel::INFO:
        return LOG_INFO;
    case LogLevel::WARNING:
        return LOG_WARNING;
    case LogLevel::ERROR:
        return LOG_ERR;
    case LogLevel::CRITICAL:
    case LogLevel::OFF:
        return LOG_CRIT;
    }
    return LOG_CRIT;
}

class StderrSink final : public LogOutput {
public:
    explicit StderrSink(int opened) : descriptor(opened) {}

    void Write(LogLevel level, std::string_view logger, std::string_view text) override {
        line.clear();
        if (IsJournal())
            AppendPriority(level, line);
        AppendLine(level, logger, text, line);
        const bool lastIsWhole = FinishLast();
        const Written written = WriteWithoutWaiting(descriptor, line);
        if (written.error == EAGAIN && written.bytes > 0)
            unfinished = {line.substr(written.bytes), Target(), ::getpid()};
        else if (written.error != 0) {
            if (written.bytes > 0)
                unfinished = {"\n", Target(), ::getpid()};
            FailToWrite(written.error);
        }
        if (!lastIsWhole)
            throw LogLoss("standard error was replaced in the middle of a record");
    }
    void Flush() override {}

private:
    /// What is still to come of the last record, or of its line when it was lost on the way.
    struct Unfinished {
        std::string rest;
        std::pair<dev_t, ino_t> target{};
        pid_t process = 0; // a child that was forked in between leaves it to its parent
    };

    /// @return false when it never will be, because its beginning went elsewhere
    bool FinishLast() {
        if (unfinished.rest.empty())
            return true;
        const bool isMine = unfinished.process == ::getpid();
        if (!isMine || unfinished.target != Target()) {
            const bool wasLostAlready = unfinished.rest == "\n";
            unfinished.rest.clear();
            return !isMine || wasLostAlready;
        }
        const Written written = WriteWithoutWaiting(descriptor, unfinished.rest);
        unfinished.rest.erase(0, written.bytes);
        if (written.error != 0)
            FailToWrite(written.error);
        return true;
    }

    /// The journal takes a line's priority from "<N>" before it. JOURNAL_STREAM names the stream that leads there, and
    /// stays set when standard error is led elsewhere.
    bool IsJournal() const {
        if (journal.empty())
            return false;
        const auto [device, inode] = Target();
        return journal == std::to_string(device) + ":" + std::to_string(inode);
    }

    static void AppendPriority(LogLevel level, std::string& line) {
        const char prefix[] = {'<', static_cast<char>('0' + Severity(level)), '>'};
        line.append(prefix, sizeof prefix);
    }

    static std::string JournalStream() {
        const char* const stream = ::secure_getenv("JOURNAL_STREAM"); // NOLINT(concurrency-mt-unsafe): read once
        return stream == nullptr ? std::string() : stream;
    }

    std::pair<dev_t, ino_t> Target() const {
        struct stat status = {};
        ::fstat(descriptor, &status);
        return {status.st_dev, status.st_ino};
    }

    [[noreturn]] static void FailToWrite(int error) {
        if (error == EAGAIN)
            throw LogLoss("standard error: its reader does not keep up");
        Fail("standard error", error);
    }

    const int descriptor;
    const std::string journal = JournalStream();
    Unfinished unfinished;
    std::string line; // kept for its room
};

class FileSink final : public LogOutput {
public:
    FileSink(std::string filePath, std::size_t mostBytes, std::size_t files)
        : path(std::move(filePath)), maxBytes(mostBytes), count(files) {}

    void Write(LogLevel level, std::string_view logger, std::string_view text) override {
        line.clear();
        AppendLine(level, logger, text, line);
        if (!file.IsOpen())
            Open();
        if (bounded && size > 0 && size + line.size() > maxBytes)
            Rotate();
        const Written written = writer.Write(file.Number(), line);
        size += written.bytes;
        if (written.error != 0) {
            // The storage may have been unmounted or exchanged: the next record looks again.
            file.Reset();
            Fail(path, written.error);
        }
    }

    void Flush() override {
        if (file.IsOpen() && bounded && ::fdatasync(file.Number()) != 0)
            Fail(path, errno);
    }

private:
    void Open() {
        file.Reset(OpenOnce());
        if (!file.IsOpen() && errno == ENOENT && MakeFolder())
            file.Reset(OpenOnce());
        struct stat status = {};
        if (!file.IsOpen() || ::fstat(file.Number(), &status) != 0) {
            const int error = errno;
            file.Reset();
            Fail(path, error);
        }
        bounded = S_ISREG(status.st_mode);
        size = bounded ? static_cast<std::size_t>(status.st_size) : 0;
    }

    int OpenOnce() const {
        constexpr mode_t ownerWritesGroupReads = 0640;
        return ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK,
                      ownerWritesGroupReads);
    }

    bool MakeFolder() const {
        const auto slash = path.rfind('/');
        return slash != std::string::npos && slash > 0 && ::mkdir(path.substr(0, slash).c_str(), 0755) == 0;
    }

    void Rotate() {
        file.Reset();
        for (std::size_t number = count - 1; number > 0; --number)
            if (::rename(Numbered(number - 1).c_str(), Numbered(number).c_str()) != 0 && errno != ENOENT)
                Fail(Numbered(number), errno);
        if (count == 1 && ::truncate(path.c_str(), 0) != 0)
            Fail(path, errno);
        writer.BeginFile();
        Open();
    }

    std::string Numbered(std::size_t number) const { return number == 0 ? path : path + "." + std::to_string(number); }

    const std::string path;
    const std::size_t maxBytes;
    const std::size_t count;

    FileDescriptor file;
    bool bounded = false; // a device or a pipe has no size
    std::size_t size = 0;
    LineWriter writer;
    std::string line; // kept for its room
};

class SyslogSink final : public LogOutput {
public:
    SyslogSink(std::string path, std::string program) : socketPath(std::move(path)), programName(std::move(program)) {}

    void Write(LogLevel level, std::string_view logger, std::string_view text) override {
        std::string packet = "<" + std::to_string(LOG_DAEMON | Severity(level)) + ">" + programName + "[" +
                             std::to_string(::getpid()) + "]: ";
        AppendRecord(level, logger, text, packet);
        // The second attempt finds a daemon that has been restarted since the last record.
        int error = !socket.IsOpen() ? ENOTCONN : Send(packet);
        if (error != 0 && error != EAGAIN && error != EMSGSIZE) {
            socket.Reset();
            Connect();
            error = Send(packet);
        }
        if (error != 0)
            Fail(socketPath, error);
    }
    void Flush() override {}

private:
    void Connect() {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        if (socketPath.size() >= sizeof address.sun_path)
            Fail(socketPath, ENAMETOOLONG);
        std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
        socket.Reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (!socket.IsOpen())
            Fail(socketPath, errno);
        if (::connect(socket.Number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            const int error = errno;
            socket.Reset();
            Fail(socketPath, error);
        }
    }

    int Send(const std::string& packet) const noexcept {
        while (::send(socket.Number(), packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
            if (errno != EINTR)
                return errno;
        return 0;
    }

    const std::string socketPath;
    const std::string programName;
    FileDescriptor socket;
};

} // namespace

std::unique_ptr<LogOutput> MakeStderrSink(int descriptor) {
    return std::make_unique<StderrSink>(descriptor);
}

std::unique_ptr<LogOutput> MakeFileSink(std::string path, std::size_t maxBytes, std::size_t count) {
    return std::make_unique<FileSink>(std::move(path), maxBytes, count);
}

std::unique_ptr<LogOutput> MakeSyslogSink(std::string socketPath, std::string programName) {
    return std::make_unique<SyslogSink>(std::move(socketPath), std::move(programName));
}

void WriteToStderr(const std::string& text) noexcept {
    try {
        WriteWithoutWaiting(STDERR_FILENO, text + '\n');
    } catch (const std::exception&) {
        // No memory: it is lost.
    }
}

} // namespace OrvPlatform
