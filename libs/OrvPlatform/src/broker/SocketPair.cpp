// SPDX-License-Identifier: Apache-2.0
#include "broker/SocketPair.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

namespace OrvPlatform {

namespace {

bool IsPaired(int descriptor) {
    int domain = 0;
    int type = 0;
    socklen_t size = sizeof domain;
    if (getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0 || domain != AF_UNIX)
        return false;
    size = sizeof type;
    if (getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_STREAM)
        return false;
    sockaddr_storage name{};
    size = sizeof name;
    const bool unnamed =
        getsockname(descriptor, reinterpret_cast<sockaddr*>(&name), &size) == 0 && size == sizeof(sa_family_t);
    return unnamed && (fcntl(descriptor, F_GETFL) & O_NONBLOCK) != 0 && (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) == 0;
}

struct CloseFolder {
    void operator()(DIR* folder) const noexcept { closedir(folder); }
};

} // namespace

PairedSockets FindPairedSockets() {
    PairedSockets found;
    const std::unique_ptr<DIR, CloseFolder> folder(opendir("/proc/self/fd"));
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody else reads this opened folder
    while (const dirent* entry = folder ? readdir(folder.get()) : nullptr) {
        const int descriptor = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
        struct stat status {};
        // By its name: another thread's descriptor may be closed at this moment.
        if (IsPaired(descriptor) && fstatat(dirfd(folder.get()), entry->d_name, &status, 0) == 0)
            found.emplace_back(descriptor, status.st_ino);
    }
    return found;
}

bool RestrainUnreadPair(const PairedSockets& before) {
    PairedSockets made = FindPairedSockets();
    made.erase(
        std::remove_if(made.begin(), made.end(),
                       [&](const auto& one) { return std::find(before.begin(), before.end(), one) != before.end(); }),
        made.end());
    if (made.size() != 2)
        return false;
    for (const auto& [descriptor, inode] : made) {
        const int least = 1;
        fcntl(descriptor, F_SETFD, FD_CLOEXEC);
        setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
    }
    return true;
}

} // namespace OrvPlatform
