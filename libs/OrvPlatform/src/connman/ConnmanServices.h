// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace OrvPlatform {

/// The configured name server that stands for "none at all": a word that is no address, since ConnMan takes the empty
/// list for "as the network offers" and makes a route of every address.
constexpr const char* NO_SERVERS = "none";

/// What one message of the connection manager says about one service; what it does not mention is empty.
struct ConnmanServiceUpdate {
    std::string path;
    std::optional<std::string> interfaceName;
    std::optional<std::string> state;
    std::optional<bool> immutable;
    std::optional<std::vector<std::string>> servers;
    std::optional<std::vector<std::string>> configuredServers;
    std::optional<bool> ipv4Off{}; ///< by configuration, which ConnMan also writes itself
    std::optional<bool> ipv6Off{};
};

/// One service of the connection manager: a network that an interface can use or uses.
struct ConnmanService {
    std::string path;
    std::string interfaceName;
    std::string state;
    bool immutable = false;
    bool ipv4Off = false;
    bool ipv6Off = false;
    std::vector<std::string> servers;                       ///< in use
    std::vector<std::string> configuredServers;             ///< by configuration, without words that are no address
    std::optional<std::vector<std::string>> writtenServers; ///< the configuration that we have made ourselves

    /// It holds an address: its interface can carry the default route.
    bool Connected() const { return state == "ready" || state == "online"; }

    /// Its name servers are configured as `wanted` says; false also when that cannot be told.
    bool HasServers(const std::vector<std::string>& wanted) const;
};

/// The services in the connection manager's order, kept up to date from its messages. No locks, no bus.
class ConnmanServices {
public:
    /// The whole list, as GetServices answers it.
    void Replace(const std::vector<ConnmanServiceUpdate>& all);

    /// The new order, as ServicesChanged tells it.
    /// @return false when it does not fit what was known: the whole list must be asked for again.
    bool Reorder(const std::vector<ConnmanServiceUpdate>& ordered, const std::vector<std::string>& removed);

    /// News about one service. An unknown one is ignored: ServicesChanged introduces it.
    void Update(const ConnmanServiceUpdate& news);

    /// We have configured these name servers.
    void NoteWritten(const std::string& path, const std::vector<std::string>& written);

    void Clear() { services.clear(); }
    void Swap(ConnmanServices& other) noexcept { services.swap(other.services); }

    /// The interface of the first service if that is connected, otherwise empty.
    std::string TopInterface() const;

    /// The first service in the order; null when there is none.
    const ConnmanService* First() const { return services.empty() ? nullptr : &services.front(); }

    /// The interface's service, a connected one if there is one; null when it has none.
    const ConnmanService* Of(const std::string& interfaceName) const;

    /// The command after which ConnMan moves one service before the other, where it refuses because one of them has an
    /// IP family switched off; empty when that cannot be why.
    std::string RemedyForMove(const std::string& path, const std::string& before) const;

    const std::vector<ConnmanService>& All() const { return services; }

private:
    ConnmanService* Find(const std::string& path);

    std::vector<ConnmanService> services;
};

} // namespace OrvPlatform
