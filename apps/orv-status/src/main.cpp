// SPDX-License-Identifier: Apache-2.0
#include "Json.h"
#include "Monitor.h"
#include "Options.h"
#include "Pieces.h"
#include "Table.h"
#include "signals/Signals.h"

#include <config/GatewayConfig.h>
#include <connman/MessageBus.h>
#include <langinfo.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <string>

namespace {

using namespace std::chrono_literals;
using namespace OrvStatus;

constexpr auto FIRST_ANSWER = 1500ms;
constexpr auto REFRESH_INTERVAL = 1s; // also without news: a process may have gone

MonitorSettings ReadSettings(const Options& options) {
    const OrvPlatform::LoadedConfig loaded = OrvPlatform::LoadGatewayConfig();
    for (const std::string& problem : loaded.problems)
        std::fprintf(stderr, "%s\n", problem.c_str());
    const OrvPlatform::GatewayConfig& config = loaded.config;
    MonitorSettings settings;
    const bool socket = !config.broker.socket.empty();
    settings.broker.host = socket ? config.broker.socket : config.broker.host;
    settings.broker.port = socket ? 0 : config.broker.port;
    settings.broker.user = options.user.empty() ? config.broker.username : options.user;
    settings.broker.password = options.user.empty() ? config.broker.password : "";
    if (!options.passwordFile.empty())
        settings.broker.password = ReadPassword(options.passwordFile);
    settings.busAddress = OrvPlatform::MessageBus::Address(config.connman.busAddress);
    settings.ethernet = config.interfaces.ethernet;
    settings.cellular = config.interfaces.cellular;
    settings.statusFile = options.statusFile;
    settings.hasEndpoint = !config.cloud.endpoint.empty();
    return settings;
}

/// @return false when nobody reads any more
bool Print(const std::string& text) {
    return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
}

TableStyle StyleOf(const Options& options) {
    const char* const plain = std::getenv("NO_COLOR"); // NOLINT(concurrency-mt-unsafe): before there is a thread
    const bool fancy = isatty(STDOUT_FILENO) == 1 && (plain == nullptr || *plain == '\0');
    TableStyle style;
    style.colour = options.colour == Options::Colour::ALWAYS || (options.colour == Options::Colour::AUTO && fancy);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody sets another locale
    style.symbols = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    return style;
}

std::string Shown(const Snapshot& snapshot, const Options& options, const TableStyle& style) {
    if (options.form == Form::JSON)
        return Joined({Json(snapshot), "\n"});
    if (options.form == Form::METRICS)
        return Metrics(snapshot);
    if (options.form == Form::QUIET)
        return {};
    if (options.pace == Pace::FOLLOW)
        return Joined({snapshot.at.utc, " ", Line(snapshot), "\n"});
    const char* const clear = options.pace == Pace::WATCH ? "\x1b[H\x1b[2J" : "";
    return Joined({clear, Table(snapshot, style)});
}

/// What must differ for another line.
std::string ChangeKey(const Snapshot& snapshot, const Options& options) {
    return options.form == Form::JSON ? Fingerprint(snapshot) : Line(snapshot);
}

int Run(const Options& options, int signals) {
    const TableStyle style = StyleOf(options);
    Monitor monitor(ReadSettings(options));
    monitor.Settle(Monitor::Clock::now() + FIRST_ANSWER);
    Snapshot snapshot = monitor.Take();
    std::string shownKey = ChangeKey(snapshot, options);
    bool read = Print(Shown(snapshot, options, style));
    while (read && options.pace != Pace::ONCE && monitor.Wait(Monitor::Clock::now() + REFRESH_INTERVAL, signals)) {
        snapshot = monitor.Take();
        const std::string key = ChangeKey(snapshot, options);
        if (key == shownKey && options.pace == Pace::FOLLOW)
            continue;
        shownKey = key;
        read = Print(Shown(snapshot, options, style));
    }
    return options.form == Form::METRICS ? 0 : Judge(snapshot).exitStatus;
}

} // namespace

int main(int count, char** words) {
    std::setlocale(LC_ALL, ""); // NOLINT(concurrency-mt-unsafe): before there is a thread
    try {
        const Options options = ReadOptions(count, words);
        std::optional<OrvSignals::Signals> signals;
        if (options.pace != Pace::ONCE) {
            OrvSignals::Block({SIGTERM, SIGINT});
            std::signal(SIGPIPE, SIG_IGN);
            signals.emplace(std::initializer_list<int>{SIGTERM, SIGINT});
        }
        return Run(options, signals ? signals->Descriptor() : -1);
    } catch (const Ending& ending) {
        std::fputs(ending.text.c_str(), ending.exitStatus == 0 ? stdout : stderr);
        return ending.exitStatus;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "orv-status: %s\n", error.what());
    }
    constexpr int cannotTell = 30;
    return cannotTell;
}
