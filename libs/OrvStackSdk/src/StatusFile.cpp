// SPDX-License-Identifier: Apache-2.0
#include "StatusFile.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace OrvStackSdk {

namespace {

// Another process may create files there faster than we remove them.
constexpr int ATTEMPTS = 10;

bool IsOurs(const struct stat& file) {
    return S_ISREG(file.st_mode) && file.st_nlink == 1 && file.st_uid == geteuid();
}

/// Whether the name under which the file was opened has been removed since. A planted link is a second name of another
/// file of ours. If another client removes it before fstat, the link count is 1 again, and the name left is not this
/// one. So ask after the names were counted.
bool HasLostItsName(int opened) {
    char link[32];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", opened);
    char name[PATH_MAX];
    const ssize_t length = readlink(link, name, sizeof name);
    return length > 0 && name[length - 1] == ')'; // "... (deleted)"
}

/// Whether nothing had the name any more; then an empty file has it now, which the next attempt removes. Waits until no
/// name is being removed in the folder: the kernel counts a file's names down a moment before it forgets the name, and
/// until then HasLostItsName would not see it.
bool IsFree(const char* path) {
    const int made = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
    return made != -1 && close(made) == 0;
}

int OpenOurs(const char* path) {
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        // Without O_NONBLOCK, open would wait for the other end of a FIFO or for the holder of a lease.
        const int opened = open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
        struct stat file;
        const bool known = (opened != -1 ? fstat(opened, &file) : lstat(path, &file)) == 0;
        if (known && IsOurs(file) && (opened == -1 || (!IsFree(path) && !HasLostItsName(opened))))
            return opened; // -1 when it is ours and cannot be opened for another reason
        if (opened != -1)
            close(opened);
        if (known && unlink(path) != 0 && errno != ENOENT)
            break;
    }
    return -1;
}

} // namespace

StatusFile::StatusFile(const char* path) noexcept : descriptor(OpenOurs(path)) {
    [[maybe_unused]] const int emptied = ftruncate(descriptor, 0);
}

StatusFile::~StatusFile() {
    if (descriptor != -1)
        close(descriptor);
}

void StatusFile::Write(const char* text, std::size_t length) const noexcept {
    while (length != 0) {
        const ssize_t written = write(descriptor, text, length);
        if (written > 0) {
            text += written;
            length -= static_cast<std::size_t>(written);
        } else if (written == 0 || errno != EINTR) {
            return;
        }
    }
}

} // namespace OrvStackSdk
