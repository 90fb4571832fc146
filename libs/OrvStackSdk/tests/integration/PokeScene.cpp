// SPDX-License-Identifier: Apache-2.0
#include "PokeScene.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <list>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace OrvStackSdk::Testing {

namespace {

constexpr std::size_t DNS_HEADER = 12;

bool Spawn(std::vector<std::string> words, pid_t& pid) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (auto& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (const int descriptor : {0, 1, 2})
        posix_spawn_file_actions_addopen(&actions, descriptor, "/dev/null", O_RDWR, 0);
    const bool started = posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ) == 0;
    posix_spawn_file_actions_destroy(&actions);
    return started;
}

} // namespace

std::string PokeError(int code) {
    return "log error OrvRoute \"poke error " + std::to_string(code) + "\"";
}

bool RunToEnd(std::vector<std::string> words) {
    pid_t pid = 0;
    int status = 0;
    return Spawn(std::move(words), pid) && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

BoundSocket::BoundSocket(int type, const char* address, std::uint16_t port)
    : descriptor(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
    const int yes = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    const auto where = Address(address, port);
    usable = bind(descriptor, reinterpret_cast<const sockaddr*>(&where), sizeof where) == 0;
}

BoundSocket::~BoundSocket() {
    close(descriptor);
}

bool BoundSocket::Listen() const {
    return usable && listen(descriptor, 8) == 0;
}

sockaddr_in BoundSocket::Address(const char* address, std::uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    inet_pton(AF_INET, address, &result.sin_addr);
    return result;
}

struct NameServer::Question {
    std::string packet; // header and question, nothing behind them
    std::string name;
    bool forAddress = false; // of IPv4
    sockaddr_in from{};
};

NameServer::NameServer(Addresses addresses)
    : socket(SOCK_DGRAM, "127.0.0.53", 53), known(std::move(addresses)), thread([this] { Serve(); }) {}

NameServer::~NameServer() {
    ended = true;
    thread.join();
}

void NameServer::Answer(const std::string& name, const std::string& address) {
    const std::lock_guard<std::mutex> lock(mutex);
    known[name] = address;
}

Names NameServer::Asked() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return asked;
}

void NameServer::Note(const std::string& name) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (std::find(asked.begin(), asked.end(), name) == asked.end())
        asked.push_back(name);
}

void NameServer::Serve() {
    std::list<Question> waiting;
    while (!ended) {
        pollfd input{socket.Descriptor(), POLLIN, 0};
        if (::poll(&input, 1, 5) == 1) {
            Question question;
            std::array<char, 512> buffer{};
            socklen_t size = sizeof question.from;
            const auto length = recvfrom(socket.Descriptor(), buffer.data(), buffer.size(), 0,
                                         reinterpret_cast<sockaddr*>(&question.from), &size);
            std::size_t at = DNS_HEADER;
            while (length > 0 && at < static_cast<std::size_t>(length) && buffer[at] != 0) {
                const auto label = static_cast<unsigned char>(buffer[at]);
                question.name += (question.name.empty() ? "" : ".") + std::string(&buffer[at + 1], label);
                at += label + 1;
            }
            question.forAddress = buffer[at + 2] == 1;
            question.packet.assign(buffer.data(), at + 5);
            Note(question.name);
            waiting.push_back(question);
        }
        waiting.remove_if([this](const Question& question) { return Reply(question); });
    }
}

bool NameServer::Reply(const Question& question) const {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = known.find(question.name);
    if (found == known.end())
        return false;
    std::string packet = question.packet;
    packet.replace(2, DNS_HEADER - 2, std::string("\x81\x80\0\1\0\0\0\0\0\0", 10)); // an answer, one question
    if (question.forAddress) {
        in_addr address{};
        inet_pton(AF_INET, found->second.c_str(), &address);
        packet[7] = 1;
        packet += std::string("\xc0\x0c\0\1\0\1\0\0\0\0\0\4", 12); // the same name, an address, for now, four bytes
        packet.append(reinterpret_cast<const char*>(&address), sizeof address);
    }
    sendto(socket.Descriptor(), packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&question.from),
           sizeof question.from);
    return true;
}

TlsServer::TlsServer(const std::string& certificate) {
    const char* folder = std::getenv("ORV_ENDPOINT_DIR"); // NOLINT(concurrency-mt-unsafe)
    const std::string base = std::string(folder ? folder : ".") + "/" + certificate;
    started = Spawn(
        {"openssl", "s_server", "-accept", ENDPOINT, "-cert", base + ".pem", "-key", base + ".key", "-www", "-quiet"},
        pid);
}

TlsServer::~TlsServer() {
    if (!started)
        return;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}

bool TlsServer::IsReadyWithin(std::chrono::seconds limit) const {
    const auto deadline = RealClock::now() + limit;
    while (started && RealClock::now() < deadline) {
        const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const auto where = BoundSocket::Address("127.0.0.1", PORT);
        const bool open = connect(probe, reinterpret_cast<const sockaddr*>(&where), sizeof where) == 0;
        close(probe);
        if (open)
            return true;
        std::this_thread::sleep_for(10ms);
    }
    return false;
}

ThePokeOnRealSockets::ThePokeOnRealSockets() {
    FakeGateway::Reset();
    FakeGateway::SetInterfaceName("Ethernet", "lo");
    FakeGateway::SetInterfaceName("Cellular", "lo");
    OrvPlatformFake::FakeConnman::Get().SetOrder({"lo"});
}

ThePokeOnRealSockets::~ThePokeOnRealSockets() {
    if (durations.empty())
        return;
    std::sort(durations.begin(), durations.end());
    const auto microseconds = [](RealClock::duration duration) {
        return std::chrono::duration_cast<std::chrono::microseconds>(duration).count();
    };
    std::cout << durations.size() << " ticks, median " << microseconds(durations[durations.size() / 2]) << " us, worst "
              << microseconds(durations.back()) << " us\n";
}

void ThePokeOnRealSockets::PokeOverCellular(const std::string& endpoint) {
    FakeGateway::SetCloudEndpoint(endpoint);
    route = std::make_unique<OrvRoute>(time.Now());
    route->UpdateRoute(false, false, true);
    route->Tick();
    time.Advance(10s);
    route->Tick();
    Journal::Clear();
}

void ThePokeOnRealSockets::Tick() {
    const auto start = RealClock::now();
    route->Tick();
    durations.push_back(RealClock::now() - start);
}

Entries ThePokeOnRealSockets::LogWithin(std::chrono::seconds limit) {
    const auto deadline = RealClock::now() + limit;
    while (RealClock::now() < deadline) {
        Tick();
        auto log = Only(Journal::Take(), {"log"});
        if (!log.empty())
            return log;
        std::this_thread::sleep_for(5ms);
    }
    return {};
}

void ThePokeOnRealSockets::Abort() {
    route->UpdateRoute(true, true, true);
    Journal::Clear();
    Tick();
    const auto log = Only(Journal::Take(), {"log"});
    EXPECT_TRUE(!log.empty() && log.back() == ABORTED) << ::testing::PrintToString(log);
}

RealClock::duration ThePokeOnRealSockets::LongestTick() const {
    return *std::max_element(durations.begin(), durations.end());
}

} // namespace OrvStackSdk::Testing
