// SPDX-License-Identifier: Apache-2.0
#include "torture/Gateway.h"

#include "torture/Failures.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

namespace {

std::atomic<std::chrono::steady_clock::rep> skipped{0};

} // namespace

// In the place of the standard library's: a delay of ten seconds is over when the program wants it to be.
__attribute__((visibility("default"))) std::chrono::steady_clock::time_point
std::chrono::_V2::steady_clock::now() noexcept {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time_point(duration(static_cast<rep>(time.tv_sec) * 1'000'000'000 + time.tv_nsec + skipped));
}

namespace OrvLab {

using namespace std::chrono_literals;

void Fail(const std::string& what, int status) {
    std::printf("%s\n", what.c_str()); // standard error may be what is tortured
    std::fflush(stdout);
    _exit(status);
}

void SkipTime(std::chrono::seconds duration) {
    skipped += std::chrono::steady_clock::duration(duration).count();
}

bool Within(std::chrono::milliseconds limit, const std::function<bool()>& condition) {
    const auto begin = std::chrono::system_clock::now();
    while (!condition()) {
        if (std::chrono::system_clock::now() - begin > limit)
            return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

void Demand(const char* what, const std::function<bool()>& condition) {
    // A trial with planted faults waits less: it tries again what it finds.
    static const char* const given = std::getenv("ORV_TORTURE_PATIENCE"); // NOLINT(concurrency-mt-unsafe): read once
    static const std::chrono::seconds patience(given != nullptr ? std::strtol(given, nullptr, 10) : 60);
    if (!Within(patience, condition))
        Fail(std::string("afterwards, in vain: ") + what, IN_VAIN);
}

Gateway::Gateway(const Equipment& equipment) : speaks(equipment.speaks) {
    std::string place = (std::filesystem::temp_directory_path() / "orv-torture-XXXXXX").string();
    if (mkdtemp(place.data()) == nullptr)
        Fail("cannot make " + place);
    folder = place;
    if (equipment.bus)
        bus.emplace(folder + "/bus");
    if (equipment.cloud) {
        const char* port = std::getenv("ORV_CLOUD_PORT");
        if (port == nullptr)
            Fail("ORV_CLOUD_PORT is not set");
        endpoint = std::string("127.0.0.1:") + port;
    }
    SetLogLevel("trace");
    setenv("ORV_GATEWAY_CONFIG", (folder + "/gateway.ini").c_str(), 1);
}

Gateway::~Gateway() {
    const Tortured notThis(false);
    bus.reset();
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

void Gateway::SetLogLevel(const char* level) const {
    const Tortured notThis(false);
    std::ofstream(folder + "/gateway.ini")
        << "[broker]\nport = " << broker.Port() << "\n[interfaces]\nethernet = eth9\ncellular = lo\n"
        << "[connman]\nbus_address = unix:path=" << folder << "/bus\n[cloud]\nendpoint = " << endpoint
        << "\n[log]\nlevel = " << level << "\nsink = " << (speaks ? "stderr" : "file") << "\nfile = " << LogFile()
        << "\n";
}

bool Gateway::Logs(const std::string& text) {
    const Tortured notThis(false);
    std::ifstream log(LogFile());
    const std::string said{std::istreambuf_iterator<char>(log), std::istreambuf_iterator<char>()};
    return said.find(text) != std::string::npos;
}

void Gateway::HaveForeignStatusFile() {
    const Tortured notThis(false);
    constexpr const char* FILE = "/var/tmp/new_enterprise_statuses.csv";
    constexpr uid_t NOBODY = 65534;
    std::filesystem::remove(FILE);
    std::ofstream(FILE) << "not ours";
    if (chmod(FILE, 0666) != 0 || chown(FILE, NOBODY, NOBODY) != 0)
        Fail("cannot leave a foreign file");
}

void Gateway::ForgetLog() {
    const Tortured notThis(false);
    std::error_code ignored;
    std::filesystem::resize_file(LogFile(), 0, ignored);
}

} // namespace OrvLab
