// SPDX-License-Identifier: Apache-2.0
#include "torture/OpenDescriptors.h"

#include "torture/Failures.h"
#include "torture/Gateway.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>
#include <set>
#include <string>

namespace OrvLab {

namespace {

std::set<int>& Foreign() {
    static std::set<int> descriptors;
    return descriptors;
}

/// Those that are open, but the one that is needed to see them.
std::set<int> Open() {
    const Tortured notThis(false);
    std::set<int> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        found.insert(std::stoi(entry.path().filename()));
    for (const int descriptor : std::set<int>(found))
        if (fcntl(descriptor, F_GETFD) < 0 || Foreign().count(descriptor) != 0)
            found.erase(descriptor);
    return found;
}

} // namespace

void OpenDescriptors::AreNotOurs() {
    Foreign() = Open();
}

long OpenDescriptors::Count() {
    return static_cast<long>(Open().size());
}

Holdings OpenDescriptors::Held() {
    const Tortured notThis(false);
    Holdings held;
    for (const int descriptor : Open()) {
        ++held.descriptors;
        std::ifstream watched("/proc/self/fdinfo/" + std::to_string(descriptor));
        for (std::string line; std::getline(watched, line);)
            held.registrations += line.rfind("tfd:", 0) == 0 || line.rfind("inotify ", 0) == 0 ? 1 : 0;
    }
    for ([[maybe_unused]] const auto& thread : std::filesystem::directory_iterator("/proc/self/task"))
        ++held.threads;
    return held;
}

Holdings OpenDescriptors::Fewest() {
    constexpr std::chrono::milliseconds A_WHILE{100};
    constexpr long MANY = std::numeric_limits<long>::max();
    Holdings fewest{MANY, MANY, MANY};
    Within(A_WHILE, [&] {
        const Holdings held = Held();
        fewest.descriptors = std::min(fewest.descriptors, held.descriptors);
        fewest.threads = std::min(fewest.threads, held.threads);
        fewest.registrations = std::min(fewest.registrations, held.registrations);
        return false;
    });
    return fewest;
}

bool OpenDescriptors::IsConnectionInherited(std::uint16_t port) {
    const std::set<int> open = Open();
    return std::any_of(open.begin(), open.end(), [port](int descriptor) {
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        const int flags = fcntl(descriptor, F_GETFD);
        return flags >= 0 && (flags & FD_CLOEXEC) == 0 &&
               getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) == 0 && peer.sin_family == AF_INET &&
               ntohs(peer.sin_port) == port;
    });
}

} // namespace OrvLab
