// SPDX-License-Identifier: Apache-2.0
#include "AnnouncedState.h"

#include <algorithm>
#include <utility>

namespace OrvPlatform {

void AnnouncedState::SetWillTopic(const std::string& topic) {
    willTopic = topic;
    onWillTopic.reset();
}

void AnnouncedState::Note(const std::string& topic, const std::string& payload, bool retained, bool assured) {
    ++noted;
    if (retained && payload.empty())
        retainedTopics.erase(topic);
    else if (retained)
        retainedTopics[topic] = Entry{payload, assured, noted};
    if (topic == willTopic)
        onWillTopic = WillEntry{payload, retained, assured, noted};
}

std::vector<Message> AnnouncedState::ToAnnounce() const {
    std::vector<std::pair<std::uint64_t, Message>> ordered;
    ordered.reserve(retainedTopics.size() + 1);
    for (const auto& [topic, entry] : retainedTopics)
        ordered.emplace_back(entry.order, Message{topic, entry.payload, true, entry.assured});
    // A retained message on the will's topic is in the map already, under the same number.
    if (onWillTopic && !(onWillTopic->retained && retainedTopics.count(willTopic) != 0))
        ordered.emplace_back(onWillTopic->order,
                             Message{willTopic, onWillTopic->payload, onWillTopic->retained, onWillTopic->assured});
    std::sort(ordered.begin(), ordered.end(), [](const auto& a, const auto& b) { return a.first < b.first; });

    std::vector<Message> messages;
    messages.reserve(ordered.size());
    for (auto& [order, message] : ordered)
        messages.push_back(std::move(message));
    return messages;
}

} // namespace OrvPlatform
