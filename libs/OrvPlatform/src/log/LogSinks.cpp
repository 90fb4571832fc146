// SPDX-License-Identifier: Apache-2.0
#include "log/LogSinks.h"

#include "log/LogWrites.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <spdlog/details/null_mutex.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

namespace OrvPlatform {

namespace {

using spdlog::details::log_msg;
using LineSink = spdlog::sinks::base_sink<spdlog::details::null_mutex>;

/// UTC needs no time zone rules, and does not jump when the clocks change.
std::unique_ptr<spdlog::formatter> Layout(const char* pattern, const char* lineEnd) {
    return std::make_unique<spdlog::pattern_formatter>(pattern, spdlog::pattern_time_type::utc, lineEnd);
}

std::unique_ptr<spdlog::formatter> LayoutWithTime() {
    return Layout("%Y-%m-%dT%H:%M:%S.%eZ %l [%n] %v", "\n");
}

[[noreturn]] void Fail(const std::string& what, int error) {
    throw spdlog::spdlog_ex(what + ": " + ErrorText(error));
}

/// Remembers when a failed write left the beginning of a line behind, so that the next record does not continue it.
class LineWriter {
public:
    Written Write(int file, const spdlog::memory_buf_t& line) {
        std::size_t mended = 0;
        if (midLine) {
            const Written end = WriteAll(file, "\n");
            if (end.error != 0)
                return end;
            mended = 1;
        }
        Written written = WriteAll(file, {line.data(), line.size()});
        midLine = written.bytes > 0 && written.error != 0;
        written.bytes += mended;
        return written;
    }

    void BeginFile() { midLine = false; }

private:
    bool midLine = false;
};

int Severity(spdlog::level::level_enum level) {
    switch (level) {
    case spdlog::level::trace:
    case spdlog::level::debug:
        return LOG_DEBUG;
    case spdlog::level::info:
        return LOG_INFO;
    case spdlog::level::warn:
        return LOG_WARNING;
    case spdlog::level::err:
        return LOG_ERR;
    case spdlog::level::critical:
    case spdlog::level::off:
    case spdlog::level::n_levels:
        return LOG_CRIT;
    }
    return LOG_CRIT;
}

class StderrSink final : public LineSink {
public:
    explicit StderrSink(int opened) : LineSink(LayoutWithTime()), descriptor(opened) {}

protected:
    void sink_it_(const log_msg& message) override {
        spdlog::memory_buf_t line;
        if (IsJournal())
            AppendPriority(message.level, line);
        formatter_->format(message, line);
        const bool lastIsWhole = FinishLast();
        const Written written = WriteWithoutWaiting(descriptor, {line.data(), line.size()});
        if (written.error == EAGAIN && written.bytes > 0)
            unfinished = {{line.data() + written.bytes, line.size() - written.bytes}, Target(), ::getpid()};
        else if (written.error != 0) {
            if (written.bytes > 0)
                unfinished = {"\n", Target(), ::getpid()};
            FailToWrite(written.error);
        }
        if (!lastIsWhole)
            throw spdlog::spdlog_ex("standard error was replaced in the middle of a record");
    }
    void flush_() override {}

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

    static void AppendPriority(spdlog::level::level_enum level, spdlog::memory_buf_t& line) {
        const char prefix[] = {'<', static_cast<char>('0' + Severity(level)), '>'};
        line.append(prefix, prefix + sizeof prefix);
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
            throw spdlog::spdlog_ex("standard error: its reader does not keep up");
        Fail("standard error", error);
    }

    const int descriptor;
    const std::string journal = JournalStream();
    Unfinished unfinished;
};

class FileSink final : public LineSink {
public:
    FileSink(std::string filePath, std::size_t mostBytes, std::size_t files)
        : LineSink(LayoutWithTime()), path(std::move(filePath)), maxBytes(mostBytes), count(files) {}
    ~FileSink() override { Close(); }
    FileSink(const FileSink&) = delete;
    FileSink& operator=(const FileSink&) = delete;

protected:
    void sink_it_(const log_msg& message) override {
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        if (file < 0)
            Open();
        if (bounded && size > 0 && size + line.size() > maxBytes)
            Rotate();
        const Written written = writer.Write(file, line);
        size += written.bytes;
        if (written.error != 0) {
            // The storage may have been unmounted or exchanged: the next record looks again.
            Close();
            Fail(path, written.error);
        }
    }

    void flush_() override {
        if (file >= 0 && bounded && ::fdatasync(file) != 0)
            Fail(path, errno);
    }

private:
    void Open() {
        file = OpenOnce();
        if (file < 0 && errno == ENOENT && MakeFolder())
            file = OpenOnce();
        struct stat status = {};
        if (file < 0 || ::fstat(file, &status) != 0) {
            const int error = errno;
            Close();
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
        Close();
        for (std::size_t number = count - 1; number > 0; --number)
            if (::rename(Numbered(number - 1).c_str(), Numbered(number).c_str()) != 0 && errno != ENOENT)
                Fail(Numbered(number), errno);
        if (count == 1 && ::truncate(path.c_str(), 0) != 0)
            Fail(path, errno);
        writer.BeginFile();
        Open();
    }

    std::string Numbered(std::size_t number) const { return number == 0 ? path : path + "." + std::to_string(number); }

    void Close() noexcept {
        if (file >= 0)
            ::close(file);
        file = -1;
    }

    const std::string path;
    const std::size_t maxBytes;
    const std::size_t count;

    int file = -1;
    bool bounded = false; // a device or a pipe has no size
    std::size_t size = 0;
    LineWriter writer;
};

class SyslogSink final : public LineSink {
public:
    SyslogSink(std::string path, std::string program)
        : LineSink(Layout("%l [%n] %v", "")), socketPath(std::move(path)), programName(std::move(program)) {}
    ~SyslogSink() override { Close(); }
    SyslogSink(const SyslogSink&) = delete;
    SyslogSink& operator=(const SyslogSink&) = delete;

protected:
    void sink_it_(const log_msg& message) override {
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        const std::string packet = "<" + std::to_string(LOG_DAEMON | Severity(message.level)) + ">" + programName +
                                   "[" + std::to_string(::getpid()) + "]: " + std::string(line.data(), line.size());
        // The second attempt finds a daemon that has been restarted since the last record.
        int error = socket < 0 ? ENOTCONN : Send(packet);
        if (error != 0 && error != EAGAIN && error != EMSGSIZE) {
            Close();
            Connect();
            error = Send(packet);
        }
        if (error != 0)
            Fail(socketPath, error);
    }
    void flush_() override {}

private:
    void Connect() {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        if (socketPath.size() >= sizeof address.sun_path)
            Fail(socketPath, ENAMETOOLONG);
        std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
        socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (socket < 0)
            Fail(socketPath, errno);
        if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            const int error = errno;
            Close();
            Fail(socketPath, error);
        }
    }

    int Send(const std::string& packet) const noexcept {
        while (::send(socket, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
            if (errno != EINTR)
                return errno;
        return 0;
    }

    void Close() noexcept {
        if (socket >= 0)
            ::close(socket);
        socket = -1;
    }

    const std::string socketPath;
    const std::string programName;
    int socket = -1;
};

} // namespace

std::shared_ptr<spdlog::sinks::sink> MakeStderrSink(int descriptor) {
    return std::make_shared<StderrSink>(descriptor);
}

std::shared_ptr<spdlog::sinks::sink> MakeFileSink(std::string path, std::size_t maxBytes, std::size_t count) {
    return std::make_shared<FileSink>(std::move(path), maxBytes, count);
}

std::shared_ptr<spdlog::sinks::sink> MakeSyslogSink(std::string socketPath, std::string programName) {
    return std::make_shared<SyslogSink>(std::move(socketPath), std::move(programName));
}

void WriteToStderr(const std::string& text) noexcept {
    try {
        WriteWithoutWaiting(STDERR_FILENO, text + '\n');
    } catch (const std::exception&) {
        // No memory: it is lost.
    }
}

std::string ErrorText(int error) {
    char buffer[128];
    return ::strerror_r(error, buffer, sizeof buffer);
}

} // namespace OrvPlatform
