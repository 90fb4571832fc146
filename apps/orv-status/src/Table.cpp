// SPDX-License-Identifier: Apache-2.0
#include "Table.h"

#include <algorithm>
#include <cstdio>

namespace OrvStatus {

namespace {

using AppState = ApplicationView::State;

std::string Duration(double seconds) {
    const auto whole = static_cast<long>(seconds < 0 ? 0 : seconds);
    if (whole < 120)
        return std::to_string(whole) + " s";
    if (whole < 7200)
        return std::to_string(whole / 60) + " min";
    return std::to_string(whole / 3600) + " h " + std::to_string(whole / 60 % 60) + " min";
}

std::string PathName(const std::string& path) {
    if (path == "ethernet")
        return "Ethernet";
    return path == "cellular" ? "Cellular" : path;
}

std::string Row(const char* name, const std::string& text) {
    char start[16];
    std::snprintf(start, sizeof(start), "%-12s ", name);
    return start + text + "\n";
}

std::string CloudText(const Verdict& verdict) {
    if (verdict.state != "connected")
        return verdict.state;
    if (verdict.path == "other" || verdict.path == "unknown")
        return "connected, over an interface that is " + std::string(verdict.path == "other" ? "neither" : "unknown");
    return "connected over " + PathName(verdict.path);
}

/// Shape and word beside the colour, for those who cannot see it.
std::string Led(const char* name, const std::string& state, const char* colour, const TableStyle& style) {
    const bool on = state == "on", off = state == "off", blink = state == "blink";
    std::string symbol = on ? "[*]" : (off ? "[ ]" : (blink ? "[~]" : "[?]"));
    if (style.symbols)
        symbol = on ? "\u25cf" : (off ? "\u25cb" : (blink ? "\u25d0" : "?"));
    if (style.colour && (on || blink))
        symbol = std::string("\x1b[") + (blink ? "5;" : "") + colour + "m" + symbol + "\x1b[0m";
    return symbol + " " + name + " " + state;
}

std::string Joined(const std::vector<std::string>& texts, const char* between) {
    std::string all;
    for (const std::string& text : texts)
        all += (all.empty() ? "" : between) + text;
    return all;
}

std::string InterfaceRow(const NetworkView::Interface& interface) {
    std::string text = PathName(interface.role) + ", ";
    if (!interface.exists)
        text += "no such interface";
    else
        text += std::string(interface.running ? "up" : "no link") + ", " +
                (interface.addresses.empty() ? "no address" : Joined(interface.addresses, " "));
    return Row(("  " + interface.name).c_str(), text);
}

std::string NetworkRows(const NetworkView& network) {
    if (network.state != Known::PRESENT)
        return Row("network", "unknown: " + network.reason);
    std::vector<std::string> routes;
    for (const NetworkView::DefaultRoute& route : network.defaults)
        routes.push_back(route.interface + (route.gateway.empty() ? "" : " by " + route.gateway));
    std::string rows =
        Row("network", routes.empty() ? "no default route" : "default route over " + Joined(routes, ", then "));
    for (const NetworkView::Interface& interface : network.interfaces)
        rows += InterfaceRow(interface);
    return rows;
}

std::string ConnmanRow(const ConnmanView& connman) {
    if (connman.state != Known::PRESENT)
        return Row("ConnMan", std::string(Text(connman.state)) + ": " + connman.reason);
    std::vector<std::string> services;
    for (const ConnmanView::Service& service : connman.services)
        services.push_back(service.interface + " " + service.state);
    return Row("ConnMan", services.empty() ? "no service" : Joined(services, ", then "));
}

std::string BrokerRow(const BrokerView& broker) {
    if (broker.state != Known::PRESENT)
        return Row("broker", broker.address + " " + Text(broker.state) + ": " + broker.reason);
    return Row("broker", broker.address + ", " + std::to_string(broker.topics.size()) + " topics" +
                             (broker.complete ? "" : ", more may come"));
}

std::string Count(const ApplicationView& application, const std::string& name) {
    for (const ApplicationView::Counter& counter : application.counters) {
        if (counter.name == name)
            return std::to_string(static_cast<long long>(counter.value));
    }
    return "unknown";
}

std::string ApplicationRows(const ApplicationView& application) {
    if (application.state != AppState::RUNNING)
        return Row("gateway-app", std::string(Text(application.state)) +
                                      (application.reason.empty() ? "" : ": " + application.reason));
    std::string rows =
        Row("gateway-app", "running since " + application.started + ", " + Count(application, "fail_overs") +
                               " fail-overs, " + Count(application, "returns") + " returns, " +
                               Count(application, "cloud_losses") + " losses of the cloud" +
                               (application.probation ? ", Ethernet on probation" : ""));
    if (!application.cloudFailure.empty())
        rows += Row("  attempt", application.cloudFailure);
    if (!application.lastMoveAt.empty())
        rows += Row("  last move", application.lastMoveAt + " from " + PathName(application.lastMoveFrom) + " to " +
                                       PathName(application.lastMoveTo) + ": " + application.lastMoveReason);
    return rows;
}

std::string Cloud(const Verdict& verdict, double now) {
    std::string text = CloudText(verdict);
    if (!verdict.since.empty())
        text += " since " + verdict.since;
    if (verdict.sinceMonotonic)
        text += " (" + Duration(now - *verdict.sinceMonotonic) + ")";
    return text + (verdict.reason.empty() ? "" : ": " + verdict.reason);
}

std::string Sample(const std::string& name, const std::string& labels, double value) {
    char text[32];
    std::snprintf(text, sizeof(text), " %.15g\n", value);
    return name + (labels.empty() ? "" : "{" + labels + "}") + text;
}

std::string Declared(const std::string& name, const char* type) {
    return "# TYPE " + name + " " + type + "\n";
}

std::string InterfaceMetrics(const NetworkView& network) {
    std::string text;
    for (const bool received : {true, false}) {
        const std::string name = received ? "orv_interface_received_bytes_total" : "orv_interface_sent_bytes_total";
        text += Declared(name, "counter");
        for (const NetworkView::Interface& interface : network.interfaces) {
            if (interface.exists)
                text += Sample(name, "role=\"" + interface.role + "\"",
                               static_cast<double>(received ? interface.receivedBytes : interface.sentBytes));
        }
    }
    return text;
}

} // namespace

std::string Table(const Snapshot& snapshot, const TableStyle& style) {
    const Verdict verdict = Judge(snapshot);
    return Row("cloud", Cloud(verdict, snapshot.at.monotonic)) + Row("", verdict.basis) +
           Row("LEDs", Led("green", LedState(snapshot.broker, kGreen), "32", style) + "   " +
                           Led("yellow", LedState(snapshot.broker, kYellow), "33", style)) +
           NetworkRows(snapshot.network) + ConnmanRow(snapshot.connman) + BrokerRow(snapshot.broker) +
           ApplicationRows(snapshot.application);
}

std::string Line(const Snapshot& snapshot) {
    const Verdict verdict = Judge(snapshot);
    std::string line = "cloud " + CloudText(verdict);
    if (!verdict.reason.empty())
        line += " (" + verdict.reason + ")";
    line += "; green " + LedState(snapshot.broker, kGreen) + ", yellow " + LedState(snapshot.broker, kYellow);
    line += "; default route " +
            (snapshot.network.defaults.empty() ? std::string("none") : snapshot.network.defaults.front().interface);
    line += "; broker " + std::string(Text(snapshot.broker.state)) + ", ConnMan " + Text(snapshot.connman.state) +
            ", gateway-app " + Text(snapshot.application.state);
    return line;
}

std::string Metrics(const Snapshot& snapshot) {
    const Verdict verdict = Judge(snapshot);
    std::string text = Declared("orv_status", "gauge") + Sample("orv_status", "", verdict.exitStatus);
    text += Declared("orv_part_up", "gauge");
    const bool running = snapshot.application.state == AppState::RUNNING;
    if (snapshot.broker.state != Known::UNKNOWN)
        text += Sample("orv_part_up", "part=\"broker\"", snapshot.broker.state == Known::PRESENT ? 1 : 0);
    if (snapshot.connman.state != Known::UNKNOWN)
        text += Sample("orv_part_up", "part=\"connman\"", snapshot.connman.state == Known::PRESENT ? 1 : 0);
    text += Sample("orv_part_up", "part=\"gateway-app\"", running ? 1 : 0);
    if (snapshot.network.state == Known::PRESENT)
        text += InterfaceMetrics(snapshot.network);
    if (!running)
        return text;
    for (const ApplicationView::Counter& counter : snapshot.application.counters) {
        const bool plain = std::all_of(counter.name.begin(), counter.name.end(),
                                       [](char letter) { return (letter >= 'a' && letter <= 'z') || letter == '_'; });
        if (plain)
            text += Declared("orv_" + counter.name + "_total", "counter") +
                    Sample("orv_" + counter.name + "_total", "", counter.value);
    }
    if (snapshot.application.longestTickUs)
        text += Declared("orv_longest_tick_seconds", "gauge") +
                Sample("orv_longest_tick_seconds", "", *snapshot.application.longestTickUs / 1e6);
    return text;
}

} // namespace OrvStatus
