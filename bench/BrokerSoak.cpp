// SPDX-License-Identifier: Apache-2.0
// The broker connection under faults, with figures.
//
//   soak-broker [RESTARTS]    kills and restarts a broker that often (default 100) under traffic from four threads;
//   after
//                             each restart everything retained and the availability have to be right again
//   soak-broker --frozen [S]  stops a broker for S seconds (default 30) under the same traffic
// Ends with status 1 when something was not right again within its patience.
#include "Journal.h"
#include "MosquittoBroker.h"
#include "ProcessFigures.h"
#include "RawClient.h"
#include "TestClient.h"
#include "WaitUntil.h"

#include <malloc.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace OrvBench {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

/// Writes nothing down, so that what is left over at the end is the connection's.
class Client : public QUILMQTT::QueueOwner {
public:
    Client() : QueueOwner("soak") {}
    ~Client() override { StopDelivery(); }

    void OnConnect() override { ++connects; }

    std::atomic<int> connects{0};
};

/// Four threads that publish retained state, assured and not, as fast as about a thousand times a second each.
class Traffic {
public:
    explicit Traffic(Client& through) : client(through) {
        for (std::size_t number = 0; number < threads.size(); ++number)
            threads[number] = std::thread([this, number] { Publish(number); });
    }

    void Stop() {
        stop = true;
        for (std::thread& thread : threads)
            thread.join();
    }

    static std::string Topic(std::size_t number) { return "traffic/" + std::to_string(number); }

    std::array<int, 4> accepted{}; // the last value of each thread, once stopped
    std::atomic<unsigned> sent{0};
    std::atomic<unsigned> refused{0};
    std::array<Clock::duration, 4> longest{};

private:
    void Publish(std::size_t number) {
        for (int value = 0; !stop; ++value) {
            const auto begin = Clock::now();
            const int status = client.PublishRetainedMessage(Topic(number), std::to_string(value), value % 2 == 0);
            longest[number] = std::max(longest[number], Clock::now() - begin);
            if (status == 0)
                accepted[number] = value;
            ++(status == 0 ? sent : refused);
            std::this_thread::sleep_for(1ms);
        }
    }

    Client& client;
    std::atomic<bool> stop{false};
    std::array<std::thread, 4> threads;
};

/// A client as an application is one: a last will, its availability, retained state.
class Application {
public:
    explicit Application(const OrvTest::MosquittoBroker& at) : broker(at) {
        OrvTest::BrokerSettings().port = broker.Port();
        client = std::make_unique<Client>();
        connected = client->Connect("state/available", "false", true) && client->Subscribe("command/#", 1);
        client->PublishRetainedMessage("state/available", "true", false);
        expected["state/available"] = "true";
        for (int number = 0; number < 20; ++number) {
            const std::string topic = "state/" + std::to_string(number);
            expected[topic] = "value " + std::to_string(number);
            client->PublishRetainedMessage(topic, expected[topic], number % 2 == 0);
        }
    }

    bool IsRight() const { return OrvTest::RetainedState(broker.Port(), "state/#") == expected; }

    const OrvTest::MosquittoBroker& broker;
    std::unique_ptr<Client> client;
    bool connected = false;
    std::map<std::string, std::string> expected;
};

struct Figures {
    OrvTest::ProcessFigures process = OrvTest::ProcessFigures::Now();
    std::size_t heap = mallinfo2().uordblks; // bytes in use, messages under way included
};

void Print(const char* what, const Figures& figures) {
    std::printf("%-8s %zu threads, %zu descriptors, %zu KiB resident, %zu bytes of heap in use\n", what,
                figures.process.threads, figures.process.descriptors, figures.process.residentBytes / 1024,
                figures.heap);
}

double Longest(const Traffic& traffic) {
    return Milliseconds(*std::max_element(traffic.longest.begin(), traffic.longest.end())).count();
}

bool TrafficIsRight(const Application& application, const Traffic& traffic) {
    return OrvTest::WaitUntil([&] {
        const auto state = OrvTest::RetainedState(application.broker.Port(), "traffic/#");
        for (std::size_t number = 0; number < traffic.accepted.size(); ++number) {
            const auto found = state.find(Traffic::Topic(number));
            if (found == state.end() || found->second != std::to_string(traffic.accepted[number]))
                return false;
        }
        return true;
    });
}

int Restarts(int count) {
    OrvTest::MosquittoBroker broker;
    Application application(broker);
    Traffic traffic(*application.client);
    std::minstd_rand random(1);
    std::uniform_int_distribution<int> pause(0, 1500);
    std::vector<double> recoveries;
    bool right = application.connected;

    const auto restart = [&] {
        const int connects = application.client->connects;
        broker.Kill();
        std::this_thread::sleep_for(std::chrono::milliseconds(pause(random)));
        broker.Start();
        const auto begin = Clock::now();
        const bool back = OrvTest::WaitUntil([&] { return application.client->connects > connects; });
        recoveries.push_back(Milliseconds(Clock::now() - begin).count());
        if (!back || !OrvTest::WaitUntil([&] { return application.IsRight(); })) {
            std::printf("not right again after restart %zu\n", recoveries.size());
            right = false;
        }
        OrvPlatformFake::Journal::Clear();
    };

    for (int warmUp = 0; warmUp < 5; ++warmUp)
        restart();
    recoveries.clear();
    recoveries.reserve(static_cast<std::size_t>(count));
    const auto before = Figures();
    for (int number = 0; number < count; ++number)
        restart();
    const auto after = Figures();
    traffic.Stop();
    if (!TrafficIsRight(application, traffic)) {
        std::puts("a last accepted value of the traffic is not what the broker retains");
        right = false;
    }

    std::sort(recoveries.begin(), recoveries.end());
    std::printf("%d restarts, broker away for 0 to 1.5 s each; from listening again to restored: median %.0f ms, "
                "worst %.0f ms\n",
                count, recoveries[recoveries.size() / 2], recoveries.back());
    std::printf("%u publications accepted, %u refused, longest call %.1f ms\n", traffic.sent.load(),
                traffic.refused.load(), Longest(traffic));
    Print("before:", before);
    Print("after:", after);
    return right ? 0 : 1;
}

int Frozen(std::chrono::seconds duration) {
    OrvTest::MosquittoBroker broker;
    Application application(broker);
    Traffic traffic(*application.client);
    bool right = application.connected && OrvTest::WaitUntil([&] { return traffic.sent > 1000; });

    const auto frozen = Clock::now();
    broker.Freeze();
    const auto isLost = [&] {
        return application.client->PublishMessage("probe", "", false) == QUILMQTT::QueueOwner::NOT_CONNECTED;
    };
    const bool noticed = OrvTest::WaitUntil(isLost, duration);
    const auto noticedAfter = Milliseconds(Clock::now() - frozen);
    std::this_thread::sleep_until(frozen + duration);
    const int connects = application.client->connects;
    broker.Thaw();
    const auto thawed = Clock::now();
    right = right && noticed && OrvTest::WaitUntil([&] { return application.client->connects > connects; });
    right = right && OrvTest::WaitUntil([&] { return application.IsRight(); });
    const auto rightAfter = Milliseconds(Clock::now() - thawed);
    traffic.Stop();
    right = right && TrafficIsRight(application, traffic);

    std::printf("frozen for %lld s: loss noticed after %.1f s, all right again %.0f ms after the thaw: %s\n",
                static_cast<long long>(duration.count()), noticedAfter.count() / 1000, rightAfter.count(),
                right ? "yes" : "NO");
    std::printf("%u publications accepted, %u refused, longest call %.1f ms\n", traffic.sent.load(),
                traffic.refused.load(), Longest(traffic));
    return right ? 0 : 1;
}

} // namespace

int Main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], "--frozen") == 0)
        return Frozen(std::chrono::seconds(argc > 2 ? std::atoi(argv[2]) : 30));
    return Restarts(argc > 1 ? std::atoi(argv[1]) : 100);
}

} // namespace OrvBench

int main(int argc, char** argv) {
    return OrvBench::Main(argc, argv);
}
