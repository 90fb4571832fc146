// SPDX-License-Identifier: Apache-2.0
#include "broker/OutstandingPublications.h"

#include <utility>

namespace OrvPlatform {

namespace {
constexpr std::size_t BOOKKEEPING = 128;
// Message ids are 16 bits wide; one in use must not be given out again.
constexpr std::size_t MOST_MESSAGES = 60000;
} // namespace

std::size_t OutstandingPublications::Cost(const std::string& topic, const std::string& payload) {
    return topic.size() + payload.size() + BOOKKEEPING;
}

bool OutstandingPublications::HasRoomFor(std::size_t cost) const {
    return bytes <= limit && cost <= limit - bytes && publications.size() < MOST_MESSAGES;
}

OutstandingPublications::Prepared OutstandingPublications::Prepare(Publication publication) {
    std::map<int, Publication> one;
    one.emplace(0, std::move(publication));
    return one.extract(one.begin());
}

void OutstandingPublications::Add(int messageId, Prepared prepared) noexcept {
    const std::size_t added = prepared.mapped().bytes;
    prepared.key() = messageId;
    // The ids begin anew after 65535: one whose first publication was never taken is not counted twice.
    if (publications.insert(std::move(prepared)).inserted)
        bytes += added;
}

std::optional<OutstandingPublications::Publication> OutstandingPublications::Take(int messageId) {
    const auto found = publications.find(messageId);
    if (found == publications.end())
        return std::nullopt;
    Publication taken = std::move(found->second);
    publications.erase(found);
    bytes -= taken.bytes;
    return taken;
}

void OutstandingPublications::DropUnassured() {
    for (auto entry = publications.begin(); entry != publications.end();) {
        if (entry->second.assured) {
            ++entry;
            continue;
        }
        bytes -= entry->second.bytes;
        entry = publications.erase(entry);
    }
}

void OutstandingPublications::Clear() {
    publications.clear();
    bytes = 0;
}

} // namespace OrvPlatform
