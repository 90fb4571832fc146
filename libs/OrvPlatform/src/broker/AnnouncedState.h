// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <list>
#include <map>
#include <string>
#include <string_view>

namespace OrvPlatform {

/// What this client has last been asked to tell the world, on every retained topic and on its will's topic. A broker
/// that restarted, that published the last will, or that was away when the client was asked, does not tell it. Grows
/// with the number of different retained topics, up to a limit, not with the number of publications.
class AnnouncedState {
public:
    struct Announcement {
        std::string topic;
        std::string payload; // of a retained topic, empty: the broker is to retain nothing
        bool retained;
        bool assured;
        bool pending; // has not been handed to a connection yet
    };

    /// @param byteLimit what the topics and payloads of the retained messages may take, with some bookkeeping each
    explicit AnnouncedState(std::size_t byteLimit) : limit(byteLimit) {}
    AnnouncedState(const AnnouncedState&) = delete;
    AnnouncedState& operator=(const AnnouncedState&) = delete;

    /// The application connects, with a last will on this topic; empty for none. What was said on an earlier will's
    /// topic is forgotten, and nothing is pending for this connection.
    void BeginSession(const std::string& topic);

    enum class Outcome {
        NOT_STATE,     // a plain message on any other topic than the will's: never announced
        REMEMBERED,    // announced after a reconnection, and pending until it was sent
        NO_ROOM,       // beyond the limit: nothing is announced on that topic
        OUT_OF_MEMORY, // likewise
    };

    /// The client has been asked to publish this; whether it can is another matter. Whatever becomes of it, what was
    /// asked earlier on the same topic is not announced any more.
    Outcome Remember(const std::string& topic, const std::string& payload, bool retained, bool assured) noexcept;

    /// What was noted last and is remembered has been handed to a connection.
    void MarkLatestSent() { announcements.back().pending = false; }

    /// In the order in which they were asked for.
    std::list<Announcement>& All() { return announcements; }
    const std::list<Announcement>& All() const { return announcements; }

private:
    using Announcements = std::list<Announcement>;
    using Place = Announcements::iterator;

    Place Replaced(Place known, const Announcement& latest);
    Outcome RememberRetained(const Announcement& latest);
    Outcome RememberPlain(const Announcement& latest);
    bool HasRoomFor(const Announcement& latest);
    void ForgetRetained(std::string_view topic);
    void ForgetPlain();

    const std::size_t limit;

    Announcements announcements;
    std::map<std::string_view, Place> retainedTopics; // the keys are the topics of the announcements
    std::size_t bytes = 0;                            // of the retained ones
    std::string willTopic;
    Place onWillTopic = announcements.end(); // the plain message on it that came after any retained one
};

} // namespace OrvPlatform
