// SPDX-License-Identifier: Apache-2.0
#include "Journal.h"

#include <algorithm>
#include <mutex>
#include <utility>

namespace OrvPlatformFake {

namespace {

std::mutex mutex;
Entries journal;
std::function<void(const std::string&)> observer;

constexpr const char* LEVELS[] = {"trace", "debug", "info", "warning", "error", "critical"};

std::string Quoted(const std::string& text) {
    return "\"" + text + "\"";
}

std::string PublishLine(const char* kind, const std::string& client, const std::string& topic,
                        const std::string& payload, bool assured) {
    return std::string(kind) + (assured ? " assured " : " ") + client + " " + Quoted(topic) + " " + Quoted(payload);
}

} // namespace

void Journal::Add(const std::string& entry) {
    std::function<void(const std::string&)> tell;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        tell = observer;
    }
    if (tell)
        tell(entry);
    const std::lock_guard<std::mutex> lock(mutex);
    journal.push_back(entry);
}

Entries Journal::Take() {
    const std::lock_guard<std::mutex> lock(mutex);
    Entries taken;
    taken.swap(journal);
    return taken;
}

void Journal::Clear() {
    Take();
}

void Journal::Observe(std::function<void(const std::string&)> next) {
    const std::lock_guard<std::mutex> lock(mutex);
    observer = std::move(next);
}

Entries Only(const Entries& entries, const std::vector<std::string>& beginnings) {
    Entries result;
    std::copy_if(entries.begin(), entries.end(), std::back_inserter(result), [&](const std::string& entry) {
        return std::any_of(beginnings.begin(), beginnings.end(),
                           [&](const std::string& beginning) { return entry.rfind(beginning, 0) == 0; });
    });
    return result;
}

namespace Entry {

std::string Log(const std::string& logger, int level, const char* tag, const std::string& text) {
    return std::string("log ") + LEVELS[level] + " " + logger + (tag ? std::string(" <") + tag + ">" : "") + " " +
           Quoted(text);
}

std::string Trace(const std::string& logger, const std::string& tag, const std::string& text) {
    return Log(logger, 0, tag.c_str(), text);
}

std::string Debug(const std::string& logger, const std::string& tag, const std::string& text) {
    return Log(logger, 1, tag.c_str(), text);
}

std::string Info(const std::string& logger, const std::string& text) {
    return Log(logger, 2, nullptr, text);
}

std::string Warning(const std::string& logger, const std::string& text) {
    return Log(logger, 3, nullptr, text);
}

std::string Error(const std::string& logger, const std::string& text) {
    return Log(logger, 4, nullptr, text);
}

std::string Wrapper(int level, bool flag, const std::string& file, int line, const std::string& function,
                    const std::string& text) {
    return std::string("wrapper ") + LEVELS[level] + (flag ? " flagged " : " ") + file + ":" + std::to_string(line) +
           " <" + function + "> " + Quoted(text);
}

std::string Connect(const std::string& client, bool accepted) {
    return "connect " + client + (accepted ? "" : " refused");
}

std::string ConnectWithWill(const std::string& client, const std::string& topic, const std::string& message,
                            bool retained, bool accepted) {
    return Connect(client, accepted) + " will " + Quoted(topic) + " " + Quoted(message) + (retained ? " retained" : "");
}

std::string Subscribe(const std::string& client, const std::string& filter, int qos) {
    return "subscribe " + client + " " + Quoted(filter) + " qos " + std::to_string(qos);
}

std::string Publish(const std::string& client, const std::string& topic, const std::string& payload, bool assured) {
    return PublishLine("publish", client, topic, payload, assured);
}

std::string PublishRetained(const std::string& client, const std::string& topic, const std::string& payload,
                            bool assured) {
    return PublishLine("publish retained", client, topic, payload, assured);
}

std::string Disconnect(const std::string& client) {
    return "disconnect " + client;
}

std::string StopDelivery(const std::string& client) {
    return "stop-delivery " + client;
}

std::string Will(const std::string& client, const std::string& topic, const std::string& message) {
    return "will " + client + " " + Quoted(topic) + " " + Quoted(message);
}

std::string TopPriority(const std::string& interfaceName) {
    return "connman top " + interfaceName;
}

std::string Dns(const std::string& interfaceName, const std::string& first, const std::string& second) {
    return "connman dns " + interfaceName + " " + Quoted(first) + " " + Quoted(second);
}

} // namespace Entry

} // namespace OrvPlatformFake
