// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>

namespace OrvPlatform {

/// The publications that were handed to the connection and that the broker has not taken yet, and their bytes: those at
/// most once until they are written to the socket, those at least once until they are acknowledged.
class OutstandingPublications {
public:
    struct Publication {
        std::string topic; // kept for an assured one only
        std::size_t bytes;
        bool assured;
    };

    explicit OutstandingPublications(std::size_t byteLimit) : limit(byteLimit) {}

    /// What a publication counts: its text and about what the client library keeps beside it.
    static std::size_t Cost(const std::string& topic, const std::string& payload);

    /// Whether a publication of that cost fits in.
    bool HasRoomFor(std::size_t cost) const;

    /// A publication with the memory that Add() needs, taken before it is handed to the connection: afterwards nothing
    /// may fail.
    using Prepared = std::map<int, Publication>::node_type;
    static Prepared Prepare(Publication publication);

    void Add(int messageId, Prepared prepared) noexcept;

    /// The broker has taken it.
    std::optional<Publication> Take(int messageId);

    /// The connection is gone: what was at most once is lost with it, the rest is sent again on the next.
    void DropUnassured();

    void Clear();
    std::size_t Bytes() const { return bytes; }

private:
    const std::size_t limit;

    // A hash table would keep its buckets, once many were outstanding.
    std::map<int, Publication> publications;
    std::size_t bytes = 0;
};

} // namespace OrvPlatform
