// SPDX-License-Identifier: Apache-2.0
#include "connman/ConnmanServices.h"

#include <algorithm>
#include <utility>

namespace OrvPlatform {

namespace {

void Apply(const ConnmanServiceUpdate& news, ConnmanService& service) {
    service.interfaceName = news.interfaceName.value_or(service.interfaceName);
    service.state = news.state.value_or(service.state);
    service.immutable = news.immutable.value_or(service.immutable);
    service.ipv4Off = news.ipv4Off.value_or(service.ipv4Off);
    service.ipv6Off = news.ipv6Off.value_or(service.ipv6Off);
    service.servers = news.servers.value_or(service.servers);
    service.configuredServers = news.configuredServers.value_or(service.configuredServers);
}

} // namespace

bool ConnmanService::HasServers(const std::vector<std::string>& wanted) const {
    if (!configuredServers.empty())
        return configuredServers == wanted;
    // ConnMan shows an empty configuration for "as the network offers" and for NO_SERVERS.
    if (wanted.empty())
        return !servers.empty() || writtenServers == wanted;
    return servers.empty() && writtenServers == wanted;
}

void ConnmanServices::Replace(const std::vector<ConnmanServiceUpdate>& all) {
    std::vector<ConnmanService> next;
    for (const ConnmanServiceUpdate& news : all) {
        ConnmanService service;
        service.path = news.path;
        if (const ConnmanService* known = Find(news.path))
            service.writtenServers = known->writtenServers;
        Apply(news, service);
        next.push_back(std::move(service));
    }
    services = std::move(next);
}

bool ConnmanServices::Reorder(const std::vector<ConnmanServiceUpdate>& ordered,
                              const std::vector<std::string>& removed) {
    bool complete = true;
    std::vector<ConnmanService> next;
    for (const ConnmanServiceUpdate& news : ordered) {
        const ConnmanService* known = Find(news.path);
        ConnmanService service;
        if (known)
            service = *known;
        service.path = news.path;
        Apply(news, service);
        complete = complete && (known || news.state);
        next.push_back(std::move(service));
    }
    const auto isNamed = [&](const ConnmanService& service) {
        const auto samePath = [&](const ConnmanServiceUpdate& news) { return news.path == service.path; };
        return std::find(removed.begin(), removed.end(), service.path) != removed.end() ||
               std::any_of(ordered.begin(), ordered.end(), samePath);
    };
    complete = complete && std::all_of(services.begin(), services.end(), isNamed);
    services = std::move(next);
    return complete;
}

void ConnmanServices::Update(const ConnmanServiceUpdate& news) {
    if (ConnmanService* service = Find(news.path))
        Apply(news, *service);
}

void ConnmanServices::NoteWritten(const std::string& path, const std::vector<std::string>& written) {
    if (ConnmanService* service = Find(path))
        service->writtenServers = written;
}

std::string ConnmanServices::TopInterface() const {
    return !services.empty() && services.front().Connected() ? services.front().interfaceName : std::string();
}

const ConnmanService* ConnmanServices::Of(const std::string& interfaceName) const {
    const ConnmanService* found = nullptr;
    for (const ConnmanService& service : services) {
        if (service.interfaceName != interfaceName || interfaceName.empty())
            continue;
        if (service.Connected())
            return &service;
        found = found ? found : &service;
    }
    return found;
}

std::string ConnmanServices::RemedyForMove(const std::string& path, const std::string& before) const {
    const auto at = [&](const std::string& wanted) {
        return std::find_if(services.begin(), services.end(),
                            [&](const auto& service) { return service.path == wanted; });
    };
    const auto one = at(path);
    const auto other = at(before);
    if (one == services.end() || other == services.end())
        return {};
    const auto command = [](const ConnmanService& service, const char* method) {
        return "connmanctl config " + service.path.substr(service.path.rfind('/') + 1) + " --ipv6 " + method;
    };
    for (const auto& [service, peer] : {std::pair(*one, *other), std::pair(*other, *one)}) {
        if (service.ipv6Off && !peer.ipv4Off)
            return command(service, "auto");
        if (service.ipv4Off && !peer.ipv6Off)
            return command(peer, "off");
    }
    return {};
}

ConnmanService* ConnmanServices::Find(const std::string& path) {
    const auto samePath = [&](const ConnmanService& service) { return service.path == path; };
    const auto found = std::find_if(services.begin(), services.end(), samePath);
    return found == services.end() ? nullptr : &*found;
}

} // namespace OrvPlatform
