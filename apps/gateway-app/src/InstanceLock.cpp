// SPDX-License-Identifier: Apache-2.0
#include "InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace GatewayApp {

namespace {

constexpr const char* WHY = "two of them would move the WAN route against each other every half minute";

std::string FirstLine(int descriptor) {
    std::array<char, 24> text{};
    const ssize_t size = pread(descriptor, text.data(), text.size(), 0);
    const std::string all(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    return all.substr(0, all.find('\n'));
}

} // namespace

InstanceLock::InstanceLock(const std::string& path) {
    if (!path.empty())
        Take(path);
}

void InstanceLock::Take(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash != std::string::npos && slash != 0)
        mkdir(path.substr(0, slash).c_str(), 0755);
    file =
        std::make_unique<Descriptor>(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    const int cause = errno;
    const std::string error = std::generic_category().message(cause);
    if (file->Number() < 0) {
        struct stat state {};
        if (stat(path.c_str(), &state) == 0)
            throw AnotherInstance("cannot open the lock " + path + " (" + error + "): " +
                                  (cause == EACCES || cause == EPERM
                                       ? "a gateway-app of another user has made it, and " + std::string(WHY) +
                                             ". Stop that one, or name another lock with --lock"
                                       : "a second gateway-app would not be noticed, and " + std::string(WHY) +
                                             ". Remove what is there, or name another lock with --lock"));
        missing = "cannot make the lock " + path + ": " + error;
        return;
    }
    if (flock(file->Number(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) {
            missing = "cannot take the lock " + path + ": " + std::generic_category().message(errno);
            return;
        }
        const std::string holder = FirstLine(file->Number());
        throw AnotherInstance("another gateway-app runs on this gateway already" +
                              (holder.empty() ? std::string() : ", process " + holder) + " (it has the lock " + path +
                              "), and " + WHY + ". Stop that one first: systemctl stop gateway-app");
    }
    const std::string self = std::to_string(getpid()) + "\n";
    // Its first line is right even where what stood there before cannot be removed.
    static_cast<void>(!ftruncate(file->Number(), 0));
    static_cast<void>(!pwrite(file->Number(), self.data(), self.size(), 0));
}

} // namespace GatewayApp
