// SPDX-License-Identifier: Apache-2.0
#include "RunStatus.h"

#include "EventLoop.h"
#include "Transcript.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <sstream>
#include <system_error>

namespace GatewayApp {

namespace {

std::string Number(double value) {
    char text[40];
    std::snprintf(text, sizeof(text), "%.3f", value);
    return text;
}

template <typename Value>
std::string OrNull(const std::optional<Value>& value) {
    if constexpr (std::is_floating_point_v<Value>)
        return value ? Number(*value) : "null";
    else
        return value ? std::to_string(*value) : "null";
}

/// The fields of one object, in the order in which they are added.
class Object {
public:
    Object& Raw(const char* name, const std::string& json) {
        text += (text.empty() ? "\"" : ",\"") + std::string(name) + "\":" + json;
        return *this;
    }
    Object& Text(const char* name, const std::string& value) { return Raw(name, JsonText(value)); }
    Object& Bool(const char* name, bool value) { return Raw(name, JsonBool(value)); }
    Object& Seconds(const char* name, double value) { return Raw(name, Number(value)); }
    template <typename Integer>
    Object& Count(const char* name, Integer value) {
        return Raw(name, std::to_string(value));
    }
    Object& At(const std::string& name, const Moment& moment) {
        return Text(name.c_str(), moment.utc).Seconds((name + "_monotonic").c_str(), moment.monotonic);
    }
    std::string Json() const { return '{' + text + '}'; }

private:
    std::string text;
};

std::string JsonOf(const RunStatus::Move& move) {
    return Object()
        .At("time", move.at)
        .Text("from", move.from)
        .Text("to", move.to)
        .Text("reason", move.reason)
        .Seconds("took_s", move.tookSeconds)
        .Json();
}

std::string JsonOf(const RunStatus::Poke& poke) {
    return Object()
        .At("time", poke.at)
        .Text("path", poke.path)
        .Text("result", poke.good ? "succeeded" : "failed")
        .Raw("code", OrNull(poke.code))
        .Raw("at_most_s", OrNull(poke.atMostSeconds))
        .Text("text", poke.text)
        .Text("known_from", poke.knownFrom)
        .Json();
}

std::string JsonOf(const RunStatus::Counters& counters) {
    return Object()
        .Count("fail_overs", counters.failOvers)
        .Count("returns", counters.returns)
        .Seconds("seconds_on_ethernet", counters.secondsOnEthernet)
        .Seconds("seconds_on_cellular", counters.secondsOnCellular)
        .Count("cloud_losses", counters.cloudLosses)
        .Raw("broker_losses", OrNull(counters.brokerLosses))
        .Raw("refused_publications", OrNull(counters.refusedPublications))
        .Raw("lost_log_records", OrNull(counters.lostLogRecords))
        .Count("cellular_received_bytes", counters.cellularReceivedBytes)
        .Count("cellular_sent_bytes", counters.cellularSentBytes)
        .Json();
}

/// When this process began, in the kernel's ticks since it booted: tells it from a later one with its number.
std::string ProcessStart() {
    std::ifstream file("/proc/self/stat");
    std::string line;
    std::getline(file, line);
    std::istringstream words(line.substr(line.rfind(')') + 1)); // the program's name may hold anything
    std::string word;
    for (int field = 3; field <= 22 && words >> word;)
        ++field;
    return words ? word : std::string();
}

/// It never changes; what could not be read is read again.
std::string KnownProcessStart() {
    static std::string known;
    if (known.empty())
        known = ProcessStart();
    return known.empty() ? "null" : known;
}

} // namespace

Moment Moment::Now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return {WallClock(), static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9};
}

void GrowingCount::Observe(std::uint64_t present) {
    if (last)
        value += present >= *last ? present - *last : present;
    last = present;
}

std::string RunStatus::Json(const Moment& written) const {
    const std::string cloud = Object()
                                  .Text("state", cloudState)
                                  .Text("path", cloudPath)
                                  .Text("interface", cloudInterface)
                                  .Text("family", cloudFamily)
                                  .Text("source", cloudSource)
                                  .Text("host", cloudHost)
                                  .At("since", cloudSince)
                                  .Text("reason", cloudReason)
                                  .Text("last_failure", cloudFailure)
                                  .Json();
    const std::string route = Object()
                                  .Text("path", routePath)
                                  .Text("interface", routeInterface)
                                  .At("since", routeSince)
                                  .Text("expected", expectedPath)
                                  .Bool("ethernet_on_probation", probation)
                                  .Text("no_fail_over", hindrance)
                                  .Raw("last_move", lastMove ? JsonOf(*lastMove) : "null")
                                  .Json();
    std::string all;
    for (const Poke& poke : pokes)
        all += (all.empty() ? "" : ",") + JsonOf(poke);
    return Object()
               .Count("version", VERSION)
               .Text("program", "gateway-app")
               .Text("name", name)
               .Count("pid", getpid())
               .Raw("process_start", KnownProcessStart())
               .Bool("running", running)
               .At("started", started)
               .At("written", written)
               .Bool("session_ready", sessionReady)
               .Raw("cloud", cloud)
               .Raw("route", route)
               .Raw("pokes", '[' + all + ']')
               .Count("ticks", ticks)
               .Count("longest_tick_us", longestTickUs)
               .Raw("counters", JsonOf(counters))
               .Json() +
           '\n';
}

std::string ReplaceFile(const std::string& path, const std::string& text) {
    const auto failure = [](const std::string& what) { return what + ": " + std::generic_category().message(errno); };
    const std::string fresh = path + ".new";
    unlink(fresh.c_str()); // left behind, or somebody's
    {
        const Descriptor file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
        if (file.Number() < 0)
            return failure("cannot make " + fresh);
        const ssize_t size = write(file.Number(), text.data(), text.size());
        if (size != static_cast<ssize_t>(text.size())) {
            if (size >= 0)
                errno = ENOSPC;
            std::string reason = failure("cannot write " + fresh);
            unlink(fresh.c_str());
            return reason;
        }
    }
    if (rename(fresh.c_str(), path.c_str()) != 0)
        return failure("cannot replace " + path);
    return {};
}

} // namespace GatewayApp
