// SPDX-License-Identifier: Apache-2.0
// A client that is looked at from outside: what it takes of memory and threads, and, under the counting plugin of the
// emulator, how many instructions a Tick and a message take.
//   orv-measure MESSAGES   waits for that many values of the panel's identifier before it goes on
#include <OrvStackSdk/OrvStackSdk.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <curl/curl.h>
#include <filesystem>
#include <iterator>
#include <malloc.h>
#include <string>
#include <sys/prctl.h>
#include <thread>

namespace {

using namespace std::chrono_literals;
using OrvStackSdk::OrvEvent;

// No option of prctl: the kernel refuses it, the counting plugin takes it for a mark.
constexpr int MARK = 0x4f525600;
enum Mark : unsigned long { TICK_BEGINS = 1, TICK_ENDS = 2, MESSAGE = 3, POKING_TICK_ENDS = 4 };

void SetMark(Mark mark) {
    prctl(MARK, static_cast<unsigned long>(mark), 0UL, 0UL, 0UL);
}

class Counter : public OrvStackSdk::IOrvStackClientHandler {
public:
    void OnInitConfirmation(const OrvStackSdk::Confirmation&) override {}
    void OnAppActionIndication(const OrvStackSdk::AppAction&) override {}
    void OnAppStatusIndication(const std::string&, const OrvStackSdk::AppStatus&) override {}
    void OnDeviceProbeIndication(const std::string&) override {
        SetMark(MESSAGE);
        ++messages;
    }
    void OnDeviceOnlineStatusIndication(bool) override {}
    void OnDeviceCellularStatusIndication(const OrvStackSdk::CellularStatus&, const std::string&) override {}
    void OnFeatureShutdownReadinessIndication(const std::string&, bool) override {}

    std::atomic<int> messages{0};
};

long Threads() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), std::filesystem::directory_iterator());
}

std::size_t Heap() {
    return mallinfo2().uordblks;
}

void TickFor(OrvStackSdk::IOrvStackClient& client, std::chrono::seconds duration, Mark end) {
    const auto until = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < until) {
        SetMark(TICK_BEGINS);
        client.Tick(50ms);
        SetMark(end);
        std::this_thread::sleep_for(50ms);
    }
}

} // namespace

int main(int argc, char** argv) {
    const int awaited = argc > 1 ? std::atoi(argv[1]) : 0;
    curl_global_init(CURL_GLOBAL_DEFAULT);
    const long threadsBefore = Threads();
    const std::size_t heapBefore = Heap();

    auto client = OrvStackSdk::CreateClient();
    const auto counter = std::make_shared<Counter>();
    client->SetHandler(counter);
    client->Init("measure");
    client->Start();
    client->EventUpdateRequest(OrvEvent::ETHERNET_CONNECTED);
    client->EventUpdateRequest(OrvEvent::ETHERNET_IP_GAINED);
    client->EventUpdateRequest(OrvEvent::CLOUD_CONNECTED);
    TickFor(*client, 1s, TICK_ENDS);
    std::printf("heap %zu\nthreads %ld\n", Heap() - heapBefore, Threads() - threadsBefore);

    const std::size_t heapRunning = Heap();
    TickFor(*client, 2s, TICK_ENDS);
    std::printf("heap-growth %zd\n", static_cast<ssize_t>(Heap() - heapRunning));

    std::puts("ready");
    std::fflush(stdout);
    const auto patience = std::chrono::steady_clock::now() + 60s;
    while (counter->messages < awaited && std::chrono::steady_clock::now() < patience)
        std::this_thread::sleep_for(10ms);
    std::printf("messages %d\n", counter->messages.load());

    // The cloud goes, the other path is poked after ten seconds: here a Tick has a connection to drive.
    client->EventUpdateRequest(OrvEvent::CELLULAR_IP_GAINED);
    client->EventUpdateRequest(OrvEvent::CLOUD_DISCONNECTED);
    TickFor(*client, 13s, POKING_TICK_ENDS);
    client->DeInit();
    return counter->messages == awaited ? 0 : 1;
}
