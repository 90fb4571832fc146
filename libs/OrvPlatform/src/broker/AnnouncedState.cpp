// SPDX-License-Identifier: Apache-2.0
#include "broker/AnnouncedState.h"

#include <new>
#include <utility>

namespace OrvPlatform {

namespace {

// About what the containers keep beside the text.
constexpr std::size_t BOOKKEEPING = 128;

std::size_t Cost(const AnnouncedState::Announcement& announcement) {
    return announcement.topic.size() + announcement.payload.size() + BOOKKEEPING;
}

} // namespace

void AnnouncedState::BeginSession(const std::string& topic) {
    willTopic = topic;
    ForgetPlain();
    for (auto& announcement : announcements)
        announcement.pending = false;
}

AnnouncedState::Outcome AnnouncedState::Remember(const std::string& topic, const std::string& payload, bool retained,
                                                 bool assured) noexcept {
    const bool onTheWills = !willTopic.empty() && topic == willTopic;
    if (!retained && !onTheWills)
        return Outcome::NOT_STATE;
    try {
        const Announcement latest{topic, payload, retained, assured, true};
        const Outcome outcome = retained ? RememberRetained(latest) : RememberPlain(latest);
        if (retained && onTheWills)
            ForgetPlain();
        return outcome;
    } catch (const std::bad_alloc&) {
        if (onTheWills)
            ForgetPlain();
        if (retained)
            ForgetRetained(topic);
        return Outcome::OUT_OF_MEMORY;
    }
}

AnnouncedState::Outcome AnnouncedState::RememberRetained(const Announcement& latest) {
    const auto known = retainedTopics.find(latest.topic);
    const std::size_t before = known == retainedTopics.end() ? 0 : Cost(*known->second);
    bytes -= before;
    const bool fits = HasRoomFor(latest);
    bytes += before;
    if (!fits) {
        ForgetRetained(latest.topic);
        return Outcome::NO_ROOM;
    }
    if (known != retainedTopics.end()) {
        known->second = Replaced(known->second, latest);
    } else {
        Announcements fresh{latest};
        retainedTopics.emplace(fresh.front().topic, fresh.begin());
        announcements.splice(announcements.end(), fresh);
    }
    bytes = bytes - before + Cost(latest);
    return Outcome::REMEMBERED;
}

AnnouncedState::Outcome AnnouncedState::RememberPlain(const Announcement& latest) {
    onWillTopic = onWillTopic == announcements.end() ? announcements.insert(announcements.end(), latest)
                                                     : Replaced(onWillTopic, latest);
    return Outcome::REMEMBERED;
}

// The node stays: its topic is a key.
AnnouncedState::Place AnnouncedState::Replaced(Place known, const Announcement& latest) {
    std::string payload = latest.payload;
    known->payload.swap(payload);
    known->assured = latest.assured;
    known->pending = true;
    announcements.splice(announcements.end(), announcements, known);
    return known;
}

// A deletion that has been handed over is the first to make room: most likely the broker knows of it.
bool AnnouncedState::HasRoomFor(const Announcement& latest) {
    const std::size_t cost = Cost(latest);
    for (auto each = announcements.begin(); each != announcements.end() && bytes + cost > limit;) {
        const Announcement& other = *each++;
        if (other.retained && other.payload.empty() && !other.pending && other.topic != latest.topic)
            ForgetRetained(other.topic);
    }
    return bytes + cost <= limit;
}

void AnnouncedState::ForgetRetained(std::string_view topic) {
    const auto known = retainedTopics.find(topic);
    if (known == retainedTopics.end())
        return;
    const Place endpoint = known->second;
    bytes -= Cost(*endpoint);
    retainedTopics.erase(known);
    announcements.erase(endpoint);
}

void AnnouncedState::ForgetPlain() {
    if (onWillTopic != announcements.end())
        announcements.erase(onWillTopic);
    onWillTopic = announcements.end();
}

} // namespace OrvPlatform
