// SPDX-License-Identifier: Apache-2.0
#include "log/LogWrites.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace OrvPlatform {

namespace {

// Where poll says that a terminal has room, with each line end counted twice.
constexpr std::size_t LEAST_ROOM_OF_A_TERMINAL = 128;

/// While it lives, SIGPIPE and SIGXFSZ cannot reach this thread; those that its writes caused are taken back.
class WriteSignalsHeld {
public:
    WriteSignalsHeld() noexcept {
        sigemptyset(&held);
        sigaddset(&held, SIGPIPE);
        sigaddset(&held, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &held, &before);
    }
    ~WriteSignalsHeld() {
        if (caused != 0 && sigismember(&before, caused) == 0) {
            sigset_t set;
            sigemptyset(&set);
            sigaddset(&set, caused);
            constexpr timespec atOnce{};
            sigtimedwait(&set, nullptr, &atOnce);
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    WriteSignalsHeld(const WriteSignalsHeld&) = delete;
    WriteSignalsHeld& operator=(const WriteSignalsHeld&) = delete;

    void Failed(int error) noexcept { caused = error == EPIPE ? SIGPIPE : error == EFBIG ? SIGXFSZ : 0; }

private:
    sigset_t held{};
    sigset_t before{};
    int caused = 0;
};

/// @param writePiece writes some of what it is given, as ::write does
template <typename WritePiece>
Written WriteInPieces(std::string_view text, WritePiece writePiece) noexcept {
    Written written;
    while (written.bytes < text.size()) {
        const ssize_t count = writePiece(text.substr(written.bytes));
        if (count > 0) {
            written.bytes += static_cast<std::size_t>(count);
        } else if (count == 0 || errno != EINTR) {
            written.error = count == 0 ? EIO : errno;
            break;
        }
    }
    return written;
}

Written Send(int socket, std::string_view text) noexcept {
    return WriteInPieces(text, [socket](std::string_view rest) {
        return ::send(socket, rest.data(), rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    });
}

/// The same pipe or terminal once more, with flags of its own: those of the descriptor belong to other programs too.
int OpenedAnew(int descriptor) noexcept {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", descriptor);
    return ::open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

/// False when a text that a pipe does not take in one piece could be cut off, and continued by somebody else's. A pipe
/// has room for so many pages, and what it holds may fill no more than half of those that are in use.
bool IsRoomInPipe(int pipe, std::size_t bytes) noexcept {
    int used = 0;
    const int size = ::fcntl(pipe, F_GETPIPE_SZ);
    if (bytes <= PIPE_BUF || size < 0 || ::ioctl(pipe, FIONREAD, &used) != 0 || used == 0)
        return true;
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const auto inUse = 2 * (static_cast<std::size_t>(used) / page + 1);
    return inUse + bytes / page + 2 <= static_cast<std::size_t>(size) / page;
}

/// For a descriptor that cannot be opened anew: another user's, no descriptor left, no /proc. It asks first, and writes
/// no more than there is room for then; only a writer in another process can still take that room away.
Written WriteWhatThereIsRoomFor(int descriptor, std::size_t piece, std::string_view text) noexcept {
    WriteSignalsHeld signals;
    const Written written = WriteInPieces(text, [descriptor, piece](std::string_view rest) -> ssize_t {
        pollfd asked{descriptor, POLLOUT, 0};
        const int answers = ::poll(&asked, 1, 0);
        if (answers == 0)
            errno = EAGAIN;
        if (answers <= 0)
            return -1;
        return ::write(descriptor, rest.data(), std::min(rest.size(), piece));
    });
    signals.Failed(written.error);
    return written;
}

} // namespace

Written WriteAll(int file, std::string_view text) noexcept {
    WriteSignalsHeld signals;
    const Written written =
        WriteInPieces(text, [file](std::string_view rest) { return ::write(file, rest.data(), rest.size()); });
    signals.Failed(written.error);
    return written;
}

Written WriteWithoutWaiting(int descriptor, std::string_view text) noexcept {
    struct stat target = {};
    if (::fstat(descriptor, &target) != 0)
        return {0, errno};
    if (S_ISSOCK(target.st_mode))
        return Send(descriptor, text);
    const bool isPipe = S_ISFIFO(target.st_mode);
    if (!isPipe && (!S_ISCHR(target.st_mode) || ::isatty(descriptor) == 0))
        return WriteAll(descriptor, text);

    if (isPipe && !IsRoomInPipe(descriptor, text.size()))
        return {0, EAGAIN};
    // Not kept open: the program may close or replace its descriptor, and then whoever reads must see the end.
    const int own = OpenedAnew(descriptor);
    if (own < 0)
        return WriteWhatThereIsRoomFor(descriptor, isPipe ? PIPE_BUF : LEAST_ROOM_OF_A_TERMINAL, text);
    const Written written = WriteAll(own, text);
    ::close(own);
    return written;
}

} // namespace OrvPlatform
