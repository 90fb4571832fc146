// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

/// A network namespace of the test program's own. Nothing that is done in it reaches the machine's network.
namespace PrivateNetwork {

/// Moves this process into a new network namespace. To be called before there is another thread.
/// @return false when this machine does not allow it
inline bool Enter() {
    return unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0;
}

/// Runs `ip ARGUMENTS`.
/// @return false when it failed
inline bool Ip(const std::string& arguments) {
    return std::system(("ip " + arguments).c_str()) == 0; // NOLINT(concurrency-mt-unsafe): one thread
}

/// Moves the test program away from the machine's network before its first test.
class InPrivateNetwork : public testing::Environment {
public:
    void SetUp() override { entered = Enter() && Ip("link set lo up"); }

    static inline bool entered = false;
};

/// False when this machine does not allow it: there is nothing that the tests may touch then.
inline bool Entered() {
    return InPrivateNetwork::entered;
}

/// True when a test that needs a namespace must fail rather than be skipped without one (ORV_REQUIRE_NAMESPACES).
inline bool Required() {
    const char* value = std::getenv("ORV_REQUIRE_NAMESPACES"); // NOLINT(concurrency-mt-unsafe): one thread
    return value != nullptr && *value != '\0';
}

/// Makes an interface that has a carrier while its other end, named NAME-far, is up.
inline bool AddInterface(const std::string& name) {
    return Ip("link add " + name + " type veth peer name " + name + "-far") && Ip("link set " + name + " up") &&
           Ip("link set " + name + "-far up");
}

/// Waits until the condition holds.
/// @return false when it did not within the time
inline bool Eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

} // namespace PrivateNetwork
