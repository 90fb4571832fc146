// SPDX-License-Identifier: Apache-2.0
#include "BrokerFeeder.h"

#include "MqttPacket.h"

#include <algorithm>
#include <csignal>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace OrvBench {

namespace {

/// Serves one client after the other, each as long as it stays.
[[noreturn]] void Feed(const OrvTest::Descriptor& listener, int orders) {
    const std::string message =
        OrvTest::Encode(OrvTest::MqttMessage{"/orv/apps_control/features/Example/init", "reload", 0, false, false, 0});
    constexpr std::uint32_t BLOCK = 64;
    std::string block;
    for (std::uint32_t number = 0; number < BLOCK; ++number)
        block += message;

    for (;;) {
        const OrvTest::Descriptor client(accept(listener.Get(), nullptr, nullptr));
        OrvTest::ReadPacket(client.Get(), std::chrono::seconds(5));
        OrvTest::WriteWhole(client.Get(), OrvTest::EncodeConnack(0));
        std::uint32_t count = 0;
        while (read(orders, &count, sizeof count) == sizeof count && count != 0) {
            while (count > 0) {
                const std::uint32_t now = std::min(count, BLOCK);
                if (!OrvTest::WriteWhole(client.Get(), block.substr(0, now * message.size())))
                    break;
                count -= now;
            }
        }
    }
}

} // namespace

BrokerFeeder::BrokerFeeder() {
    const OrvTest::Descriptor listener = OrvTest::ListenOnLoopback(0, 8);
    port = OrvTest::PortOf(listener);
    int ends[2];
    if (pipe(ends) != 0)
        throw std::runtime_error("no pipe");
    process = fork();
    if (process < 0)
        throw std::runtime_error("cannot fork");
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        Feed(listener, ends[0]);
    }
    close(ends[0]);
    orders = OrvTest::Descriptor(ends[1]);
}

BrokerFeeder::~BrokerFeeder() {
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
}

void BrokerFeeder::Send(std::uint32_t messages) const {
    if (write(orders.Get(), &messages, sizeof messages) != sizeof messages)
        throw std::runtime_error("the feeder is gone");
}

} // namespace OrvBench
