// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace OrvPlatform {

/// Something to tell the application: a connection, a message, an acknowledged publication.
struct Event {
    enum class Kind { CONNECTED, MESSAGE, DELIVERED };

    Kind kind = Kind::CONNECTED;
    std::string topic;
    std::string payload;
};

/// Events in order of arrival. Slots are used again with the memory of their strings, so that a steady flow of messages
/// allocates nothing; what a burst needed beyond that is let go.
class EventQueue {
public:
    /// An event to be filled, which Push() makes the last one; both strings hold leftovers. One that is not pushed,
    /// because there was no memory to fill it, does not count.
    Event& Next() {
        if (used == slots.size())
            slots.emplace_back();
        return slots[used];
    }
    void Push() { ++used; }

    void Clear() {
        for (std::size_t index = 0; index < used; ++index) {
            ReleaseIfLarge(slots[index].topic);
            ReleaseIfLarge(slots[index].payload);
        }
        used = 0;
        if (slots.size() > MOST_KEPT) {
            slots.resize(MOST_KEPT);
            slots.shrink_to_fit();
        }
    }

    bool Empty() const { return used == 0; }
    std::size_t Size() const { return used; }
    const Event& operator[](std::size_t index) const { return slots[index]; }

    void Swap(EventQueue& other) noexcept {
        slots.swap(other.slots);
        std::swap(used, other.used);
    }

    /// As many as are read at once as long as no assured publications are under way.
    static constexpr std::size_t MOST_KEPT = 32;

private:
    static void ReleaseIfLarge(std::string& text) {
        constexpr std::size_t kept = 1024;
        if (text.capacity() > kept)
            std::string().swap(text);
    }

    std::vector<Event> slots;
    std::size_t used = 0;
};

} // namespace OrvPlatform
