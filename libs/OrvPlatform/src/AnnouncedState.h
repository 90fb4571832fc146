// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace OrvPlatform {

/// A message as it is handed to the broker.
struct Message {
    std::string topic;
    std::string payload;
    bool retained;
    bool assured;
};

/// What this client has told the world and what a broker that restarted, or that published the last will, no longer
/// tells: the last payload of every retained topic, and the last message on the will's topic.
/// Grows with the number of different retained topics, not with the number of publications.
class AnnouncedState {
public:
    /// A new connection with this last will; empty for none. What was said on an earlier will's topic is forgotten.
    void SetWillTopic(const std::string& topic);

    /// The client has published this. A retained message without payload deletes what the broker retains: forgotten.
    void Note(const std::string& topic, const std::string& payload, bool retained, bool assured);

    /// Everything to be said again, oldest first, each message once.
    std::vector<Message> ToAnnounce() const;

private:
    struct Entry {
        std::string payload;
        bool assured;
        std::uint64_t order;
    };

    struct WillEntry {
        std::string payload;
        bool retained;
        bool assured;
        std::uint64_t order;
    };

    std::map<std::string, Entry> retainedTopics;
    std::string willTopic;
    std::optional<WillEntry> onWillTopic;
    std::uint64_t noted = 0;
};

} // namespace OrvPlatform
