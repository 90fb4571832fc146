// SPDX-License-Identifier: Apache-2.0
#include "Table.h"

#include "Pieces.h"

#include <cstdio>
#include <string_view>
#include <utility>

namespace OrvStatus {

namespace {

using AppState = ApplicationView::State;

std::string Duration(double seconds) {
    const auto whole = static_cast<long>(seconds < 0 ? 0 : seconds);
    if (whole < 120)
        return Joined({std::to_string(whole), " s"});
    if (whole < 7200)
        return Joined({std::to_string(whole / 60), " min"});
    return Joined({std::to_string(whole / 3600), " h ", std::to_string(whole / 60 % 60), " min"});
}

std::string_view PathName(std::string_view path) {
    if (path == "ethernet")
        return "Ethernet";
    return path == "cellular" ? "Cellular" : path;
}

void AddRow(std::string& rows, std::string_view name, Pieces text) {
    constexpr std::size_t width = 12;
    Append(rows, {name});
    rows.append(name.size() < width ? width + 1 - name.size() : 1, ' ');
    Append(rows, text);
    rows += '\n';
}

void AddCloudText(std::string& text, const Verdict& verdict) {
    if (verdict.state != "connected")
        text += verdict.state;
    else if (verdict.path == "other" || verdict.path == "unknown")
        Append(text, {"connected, over an interface that is ", verdict.path == "other" ? "neither" : "unknown"});
    else
        Append(text, {"connected over ", PathName(verdict.path)});
    Append(text, {verdict.family.empty() ? "" : " in ", verdict.family});
}

/// Shape and word beside the colour, for those who cannot see it.
void AddLed(std::string& text, const char* name, std::string_view state, const char* colour, const TableStyle& style) {
    const bool on = state == "on", off = state == "off", blink = state == "blink";
    const char* symbol = on ? "[*]" : (off ? "[ ]" : (blink ? "[~]" : "[?]"));
    if (style.symbols)
        symbol = on ? "\u25cf" : (off ? "\u25cb" : (blink ? "\u25d0" : "?"));
    if (style.colour && (on || blink))
        Append(text, {"\x1b[", blink ? "5;" : "", colour, "m", symbol, "\x1b[0m"});
    else
        text += symbol;
    Append(text, {" ", name, " ", state});
}

/// Adds to a list whose items stand one behind the other.
void AddItem(std::string& list, const char* between, Pieces item) {
    if (!list.empty())
        list += between;
    Append(list, item);
}

void AddInterfaceRow(std::string& rows, const NetworkView::Interface& interface) {
    std::string addresses;
    for (const std::string& address : interface.addresses)
        AddItem(addresses, " ", {address});
    const std::string name = Joined({"  ", interface.name});
    if (!interface.exists)
        AddRow(rows, name, {PathName(interface.role), ", no such interface"});
    else
        AddRow(rows, name,
               {PathName(interface.role), interface.running ? ", up, " : ", no link, ",
                addresses.empty() ? "no address" : std::string_view(addresses)});
}

void AddNetworkRows(std::string& rows, const NetworkView& network) {
    if (network.state != Known::PRESENT)
        return AddRow(rows, "network", {"unknown: ", network.reason});
    std::string routes;
    bool six = false;
    for (const NetworkView::DefaultRoute& route : network.defaults) {
        const bool sameFamily = std::exchange(six, route.isIpv6) == route.isIpv6;
        AddItem(routes, sameFamily ? ", then " : (six ? ", in IPv6 " : ", in IPv4 "),
                {route.interface, route.gateway.empty() ? "" : " by ", route.gateway});
    }
    AddRow(rows, "network", {routes.empty() ? "no default route" : "default route over ", routes});
    for (const NetworkView::Interface& interface : network.interfaces)
        AddInterfaceRow(rows, interface);
}

void AddConnmanRow(std::string& rows, const ConnmanView& connman) {
    if (connman.state != Known::PRESENT)
        return AddRow(rows, "ConnMan", {Text(connman.state), ": ", connman.reason});
    std::string services;
    for (const ConnmanView::Service& service : connman.services)
        AddItem(
            services, ", then ",
            {service.interface.empty() ? "(no interface)" : std::string_view(service.interface), " ", service.state});
    AddRow(rows, "ConnMan", {services.empty() ? "no service" : std::string_view(services)});
}

void AddBrokerRow(std::string& rows, const BrokerView& broker) {
    if (broker.state != Known::PRESENT)
        return AddRow(rows, "broker", {broker.address, " ", Text(broker.state), ": ", broker.reason});
    AddRow(rows, "broker",
           {broker.address, ", ", std::to_string(broker.topics.size()), " topics",
            broker.complete ? "" : ", more may come"});
}

std::string Count(const ApplicationView& application, std::string_view name) {
    for (const ApplicationView::Counter& counter : application.counters) {
        if (counter.name == name)
            return std::to_string(static_cast<long long>(counter.value));
    }
    return "unknown";
}

void AddApplicationRows(std::string& rows, const ApplicationView& application) {
    constexpr const char* name = "gateway-app";
    if (application.state != AppState::RUNNING)
        return AddRow(rows, name,
                      {Text(application.state), application.reason.empty() ? "" : ": ", application.reason});
    AddRow(rows, name,
           {"running since ", application.started, ", ", Count(application, "fail_overs"), " fail-overs, ",
            Count(application, "returns"), " returns, ", Count(application, "cloud_losses"), " losses of the cloud",
            application.probation ? ", Ethernet on probation" : ""});
    if (!application.cloudFailure.empty())
        AddRow(rows, "  attempt", {application.cloudFailure});
    if (!application.lastMoveAt.empty())
        AddRow(rows, "  last move",
               {application.lastMoveAt, " from ", PathName(application.lastMoveFrom), " to ",
                PathName(application.lastMoveTo), ": ", application.lastMoveReason});
}

std::string Cloud(const Verdict& verdict, double now) {
    std::string text;
    AddCloudText(text, verdict);
    if (!verdict.since.empty())
        Append(text, {" since ", verdict.since});
    if (verdict.sinceMonotonic)
        Append(text, {" (", Duration(now - *verdict.sinceMonotonic), ")"});
    Append(text, {verdict.reason.empty() ? "" : ": ", verdict.reason});
    return text;
}

void AddSample(std::string& text, Pieces name, double value) {
    char number[32];
    std::snprintf(number, sizeof(number), " %.15g\n", value);
    Append(text, name);
    text += number;
}

void AddMetric(std::string& text, std::string_view name, const char* type, double value) {
    Append(text, {"# TYPE ", name, " ", type, "\n"});
    AddSample(text, {name}, value);
}

void AddPart(std::string& text, const char* part, bool up) {
    AddSample(text, {"orv_part_up{part=\"", part, "\"}"}, up ? 1 : 0);
}

void AddInterfaceMetrics(std::string& text, const NetworkView& network) {
    for (const bool received : {true, false}) {
        const char* const name = received ? "orv_interface_received_bytes_total" : "orv_interface_sent_bytes_total";
        Append(text, {"# TYPE ", name, " counter\n"});
        for (const NetworkView::Interface& interface : network.interfaces) {
            if (interface.exists)
                AddSample(text, {name, "{role=\"", interface.role, "\"}"},
                          static_cast<double>(received ? interface.receivedBytes : interface.sentBytes));
        }
    }
}

} // namespace

std::string Table(const Snapshot& snapshot, const TableStyle& style) {
    const Verdict verdict = Judge(snapshot);
    std::string leds;
    AddLed(leds, "green", LedState(snapshot.broker, GREEN), "32", style);
    leds += "   ";
    AddLed(leds, "yellow", LedState(snapshot.broker, YELLOW), "33", style);
    std::string rows;
    AddRow(rows, "cloud", {Cloud(verdict, snapshot.at.monotonic)});
    AddRow(rows, "", {verdict.basis});
    AddRow(rows, "LEDs", {leds});
    if (const std::string reason = NoFailOver(snapshot); !reason.empty())
        AddRow(rows, "fail-over", {"not possible: ", reason});
    AddNetworkRows(rows, snapshot.network);
    AddConnmanRow(rows, snapshot.connman);
    AddBrokerRow(rows, snapshot.broker);
    AddApplicationRows(rows, snapshot.application);
    return rows;
}

std::string Line(const Snapshot& snapshot) {
    const Verdict verdict = Judge(snapshot);
    std::string line = "cloud ";
    AddCloudText(line, verdict);
    if (!verdict.reason.empty())
        Append(line, {" (", verdict.reason, ")"});
    const auto& defaults = snapshot.network.defaults;
    Append(line, {"; green ", LedState(snapshot.broker, GREEN), ", yellow ", LedState(snapshot.broker, YELLOW),
                  "; default route ", defaults.empty() ? "none" : std::string_view(defaults.front().interface),
                  "; broker ", Text(snapshot.broker.state), ", ConnMan ", Text(snapshot.connman.state),
                  ", gateway-app ", Text(snapshot.application.state)});
    return line;
}

std::string Metrics(const Snapshot& snapshot) {
    std::string text;
    AddMetric(text, "orv_status", "gauge", Judge(snapshot).exitStatus);
    text += "# TYPE orv_part_up gauge\n";
    const bool running = snapshot.application.state == AppState::RUNNING;
    if (snapshot.broker.state != Known::UNKNOWN)
        AddPart(text, "broker", snapshot.broker.state == Known::PRESENT);
    if (snapshot.connman.state != Known::UNKNOWN)
        AddPart(text, "connman", snapshot.connman.state == Known::PRESENT);
    AddPart(text, "gateway-app", running);
    if (snapshot.network.state == Known::PRESENT)
        AddInterfaceMetrics(text, snapshot.network);
    if (!running)
        return text;
    for (const ApplicationView::Counter& counter : snapshot.application.counters) {
        const bool plain = counter.name.find_first_not_of("abcdefghijklmnopqrstuvwxyz_") == std::string::npos;
        if (plain)
            AddMetric(text, Joined({"orv_", counter.name, "_total"}), "counter", counter.value);
    }
    if (snapshot.application.longestTickUs)
        AddMetric(text, "orv_longest_tick_seconds", "gauge", *snapshot.application.longestTickUs / 1e6);
    return text;
}

} // namespace OrvStatus
