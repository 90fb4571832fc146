// SPDX-License-Identifier: Apache-2.0
// What a received message costs, from the socket to OnPublish, beside the bare client library's message callback driven
// by poll() in the same way; and what a connection costs.
//
//   bench-broker                                   time and heap allocations a message
//   bench-broker --run bare|queue-owner COUNT BURST  COUNT messages in bursts of BURST, for an instruction count;
//                                                  bench/broker-instructions does the arithmetic
//   bench-broker --connections COUNT               memory, threads and descriptors a connection
#include "BrokerFeeder.h"
#include "CountedHeap.h"

#include "MosquittoBroker.h"
#include "ProcessFigures.h"
#include "TestClient.h"

#include <atomic>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mosquitto.h>
#include <poll.h>
#include <semaphore.h>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace OrvBench {

namespace {

/// Counts messages and tells the waiting thread when a burst is complete.
class Burst {
public:
    Burst() { sem_init(&complete, 0, 0); }
    ~Burst() { sem_destroy(&complete); }

    void Take() {
        if (--missing == 0)
            sem_post(&complete);
    }

    void Receive(const BrokerFeeder& feeder, std::uint32_t messages) {
        missing = messages;
        feeder.Send(messages);
        while (sem_wait(&complete) != 0) {
        }
    }

private:
    std::atomic<std::uint32_t> missing{0};
    sem_t complete{};
};

class CountingOwner : public QUILMQTT::QueueOwner {
public:
    explicit CountingOwner(const BrokerFeeder& source) : QueueOwner("bench"), feeder(source) {
        if (!Connect())
            throw std::runtime_error("cannot connect");
    }
    ~CountingOwner() override { StopDelivery(); }

    void OnPublish(const std::string& topic, const std::string& message) override {
        benchmark::DoNotOptimize(topic.data());
        benchmark::DoNotOptimize(message.data());
        burst.Take();
    }

    void Receive(std::uint32_t messages) { burst.Receive(feeder, messages); }

private:
    const BrokerFeeder& feeder;
    Burst burst;
};

/// The client library with a thread that does no more than it must.
class BareClient {
public:
    explicit BareClient(const BrokerFeeder& source) : feeder(source) {
        mosquitto_lib_init();
        client = mosquitto_new("bench", true, this);
        mosquitto_message_callback_set(client, [](mosquitto*, void* self, const mosquitto_message* message) {
            benchmark::DoNotOptimize(message->topic);
            benchmark::DoNotOptimize(message->payload);
            static_cast<BareClient*>(self)->burst.Take();
        });
        mosquitto_connect_callback_set(
            client, [](mosquitto*, void* self, int) { static_cast<BareClient*>(self)->connected = true; });
        if (mosquitto_connect(client, "127.0.0.1", source.Port(), 60) != MOSQ_ERR_SUCCESS)
            throw std::runtime_error("cannot connect");
        thread = std::thread([this] { Loop(); });
        while (!connected)
            std::this_thread::yield();
    }

    ~BareClient() {
        stop = true;
        mosquitto_disconnect(client);
        thread.join();
        mosquitto_destroy(client);
    }

    void Receive(std::uint32_t messages) { burst.Receive(feeder, messages); }

private:
    void Loop() {
        while (!stop) {
            pollfd wait{mosquitto_socket(client), POLLIN, 0};
            if (poll(&wait, 1, 100) > 0 && mosquitto_loop_read(client, 1) != MOSQ_ERR_SUCCESS)
                return;
            mosquitto_loop_misc(client);
        }
    }

    const BrokerFeeder& feeder;
    Burst burst;
    mosquitto* client = nullptr;
    std::atomic<bool> connected{false};
    std::atomic<bool> stop{false};
    std::thread thread;
};

template <typename Client>
void Receive(benchmark::State& state) {
    const BrokerFeeder feeder;
    OrvTest::BrokerSettings().port = feeder.Port();
    Client client(feeder);
    const auto burst = static_cast<std::uint32_t>(state.range(0));
    client.Receive(burst); // whatever is allocated once
    const std::uint64_t before = HeapAllocations();
    for (auto _ : state)
        client.Receive(burst);
    const auto messages = static_cast<double>(state.iterations()) * burst;
    state.counters["allocations"] = static_cast<double>(HeapAllocations() - before) / messages;
    state.counters["time"] = benchmark::Counter(messages, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

BENCHMARK_TEMPLATE(Receive, BareClient)->Name("bare")->Arg(1)->Arg(1000)->UseRealTime();
BENCHMARK_TEMPLATE(Receive, CountingOwner)->Name("queue-owner")->Arg(1)->Arg(1000)->UseRealTime();

template <typename Client>
void Run(std::uint32_t count, std::uint32_t burst) {
    const BrokerFeeder feeder;
    OrvTest::BrokerSettings().port = feeder.Port();
    Client client(feeder);
    for (std::uint32_t received = 0; received < count; received += burst)
        client.Receive(burst);
}

void Connections(int count) {
    const OrvTest::MosquittoBroker broker;
    OrvTest::BrokerSettings().port = broker.Port();
    std::vector<std::unique_ptr<OrvTest::TestClient>> clients;
    const auto open = [&] {
        clients.push_back(std::make_unique<OrvTest::TestClient>("bench-" + std::to_string(clients.size())));
        if (!clients.back()->Connect("will", "gone", true) || !clients.back()->Subscribe("a/#", 1))
            throw std::runtime_error("cannot connect");
    };
    open();
    const auto before = OrvTest::ProcessFigures::Now();
    for (int number = 0; number < count; ++number)
        open();
    const auto after = OrvTest::ProcessFigures::Now();
    const auto each = [count](std::size_t from, std::size_t to) { return static_cast<double>(to - from) / count; };
    std::printf("a connection: %.1f KiB resident, %.2f threads, %.2f descriptors (mean of %d)\n",
                each(before.residentBytes, after.residentBytes) / 1024, each(before.threads, after.threads),
                each(before.descriptors, after.descriptors), count);
}

std::uint32_t Number(const char* text) {
    return static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

} // namespace

int Main(int argc, char** argv) {
    if (argc == 5 && std::strcmp(argv[1], "--run") == 0) {
        const auto run = std::strcmp(argv[2], "bare") == 0 ? Run<BareClient> : Run<CountingOwner>;
        run(Number(argv[3]), Number(argv[4]));
        return 0;
    }
    if (argc == 3 && std::strcmp(argv[1], "--connections") == 0) {
        Connections(static_cast<int>(Number(argv[2])));
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}

} // namespace OrvBench

int main(int argc, char** argv) {
    return OrvBench::Main(argc, argv);
}
