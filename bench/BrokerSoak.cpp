// SPDX-License-Identifier: Apache-2.0
// The broker connection under faults, with figures.
//
//   soak-broker [RESTARTS]    kills and restarts a broker that often (default 100) under traffic from four threads;
//                             after each restart everything retained and the availability have to be right again, and
//                             at the end no thread, descriptor or byte of heap may be in use that was not at the start
//   soak-broker --frozen [S]  stops a broker for S seconds (default 30) under the same traffic
// Ends with status 1 when something was not right again within its patience, or was left over.
#include "HeapInUse.h"
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
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace OrvBench {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr int WARM_UP = 3; // restarts

/// Writes nothing down, so that what is left over at the end is the connection's.
class Client : public QUILMQTT::QueueOwner {
public:
    Client() : QueueOwner("soak") {}
    ~Client() override { StopDelivery(); }

    void OnConnect() override { ++connects; }
    void OnPublish(const std::string& topic, const std::string&) override {
        const std::lock_guard<std::mutex> waitWhileHeld(held);
        ++(topic == "fence" ? fences : received);
    }
    void OnDeliveryCompleted(const std::string& topic) override {
        if (topic == "count")
            ++acknowledged;
    }

    std::mutex held;
    std::atomic<int> connects{0};
    std::atomic<unsigned> fences{0};
    std::atomic<unsigned> received{0};
    std::atomic<unsigned> acknowledged{0};
};

/// Four threads that publish as fast as about a thousand times a second each: retained state, assured and not, and now
/// and then an assured message that comes back.
class Traffic {
public:
    explicit Traffic(Client& through) : client(through) {}

    void Start() {
        stop = false;
        for (std::size_t number = 0; number < threads.size(); ++number)
            threads[number] = std::thread([this, number] { Publish(number); });
    }

    void Stop() {
        stop = true;
        for (std::thread& thread : threads)
            thread.join();
    }

    static std::string Topic(std::size_t number) { return "traffic/" + std::to_string(number); }

    std::array<int, 4> accepted{};    // the last value of each thread, once stopped
    std::atomic<unsigned> counted{0}; // the messages that come back
    std::atomic<unsigned> sent{0};
    std::atomic<unsigned> refused{0};
    std::array<Clock::duration, 4> longest{};

private:
    void Publish(std::size_t number) {
        for (int value = accepted[number] + 1; !stop; ++value) {
            const auto begin = Clock::now();
            const bool counts = value % 8 == 0;
            const int status =
                counts ? client.PublishMessage("count", std::to_string(value), true)
                       : client.PublishRetainedMessage(Topic(number), std::to_string(value), value % 2 == 0);
            longest[number] = std::max(longest[number], Clock::now() - begin);
            if (status == 0 && counts)
                ++counted;
            else if (status == 0)
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
        connected = client->Connect("state/available", "false", true) && client->Subscribe("count", 1) &&
                    client->Subscribe("fence", 1);
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
    OrvTest::ProcessFigures process;
    std::int64_t heap;
};

void Print(const char* what, const Figures& figures) {
    std::printf("%-8s %zu threads, %zu descriptors, %zu KiB resident, %lld bytes of heap in use\n", what,
                figures.process.threads, figures.process.descriptors, figures.process.residentBytes / 1024,
                static_cast<long long>(figures.heap));
}

/// What is in use once nothing moves any more: the same for a tenth of a second.
Figures AtRest() {
    OrvPlatformFake::Journal::Clear();
    std::int64_t heap = HeapInUse();
    auto since = Clock::now();
    OrvTest::WaitUntil([&] {
        const std::int64_t seen = heap;
        heap = HeapInUse();
        if (heap != seen)
            since = Clock::now();
        return Clock::now() - since > 100ms;
    });
    malloc_trim(0);
    return {OrvTest::ProcessFigures::Now(), heap};
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

/// Waits after the end of the traffic until the broker has acknowledged every assured message once, retains the last
/// value of each thread and has sent back all it will.
bool IsQuiet(const Application& application, const Traffic& traffic) {
    Client& client = *application.client;
    if (!OrvTest::WaitUntil([&] { return client.acknowledged == traffic.counted; })) {
        std::printf("%u assured messages accepted, %u acknowledged\n", traffic.counted.load(),
                    client.acknowledged.load());
        return false;
    }
    if (!TrafficIsRight(application, traffic)) {
        std::puts("a last accepted value of the traffic is not what the broker retains");
        return false;
    }
    const unsigned fences = client.fences;
    return client.PublishMessage("fence", "", true) == 0 && OrvTest::WaitUntil([&] { return client.fences > fences; });
}

/// Lets messages pile up behind a callback: more than the 32 whose slots each of the two event queues keeps.
bool PileUp(const Application& application, Traffic& traffic) {
    Client& client = *application.client;
    OrvTest::RawClient witness(application.broker.Port());
    bool all = witness.Subscribe("count");
    const std::lock_guard<std::mutex> hold(client.held);
    for (int number = 0; number < 200; ++number) {
        all = client.PublishMessage("count", "", true) == 0 && witness.NextMessage() && all;
        ++traffic.counted;
    }
    return all;
}

bool NothingIsLeftOver(const Figures& before, const Figures& after) {
    Print("before:", before);
    Print("after:", after);
    const bool nothing = after.process.threads <= before.process.threads &&
                         after.process.descriptors <= before.process.descriptors && after.heap <= before.heap;
    std::printf("left over: %s; %lld bytes of heap more in use\n", nothing ? "nothing" : "SOMETHING",
                static_cast<long long>(after.heap - before.heap));
    return nothing;
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
        right = right && OrvTest::WaitUntil([&, enough = traffic.sent + 500] { return traffic.sent > enough; });
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

    recoveries.reserve(static_cast<std::size_t>(std::max(count, WARM_UP)));
    traffic.Start();
    for (int number = 0; number < WARM_UP; ++number)
        restart();
    recoveries.clear();
    traffic.Stop();
    right = PileUp(application, traffic) && IsQuiet(application, traffic) && right;
    const auto before = AtRest();

    traffic.Start();
    for (int number = 0; number < count; ++number)
        restart();
    traffic.Stop();
    right = IsQuiet(application, traffic) && right;
    const auto after = AtRest();

    std::sort(recoveries.begin(), recoveries.end());
    std::printf("%d restarts, broker away for 0 to 1.5 s each; from listening again to restored: median %.0f ms, "
                "worst %.0f ms\n",
                count, recoveries[recoveries.size() / 2], recoveries.back());
    std::printf("%u publications accepted, %u refused, longest call %.1f ms; %u assured messages, %u acknowledged, %u "
                "came back\n",
                traffic.sent.load(), traffic.refused.load(), Longest(traffic), traffic.counted.load(),
                application.client->acknowledged.load(), application.client->received.load());
    return NothingIsLeftOver(before, after) && right ? 0 : 1;
}

int Frozen(std::chrono::seconds duration) {
    OrvTest::MosquittoBroker broker;
    Application application(broker);
    Traffic traffic(*application.client);
    traffic.Start();
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
    right = IsQuiet(application, traffic) && right;

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
