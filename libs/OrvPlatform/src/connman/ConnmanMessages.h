// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "connman/ConnmanServices.h"
#include "connman/MessageBus.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

/// The connection manager's D-Bus messages, to and from plain values. A message with another signature than its own
/// reads as nothing, a property of another type or of absurd length as not mentioned. Of lists no more is read than a
/// gateway can have use for; what is left out looks like a change that has not been told, and is asked for. Who sent a
/// message is the caller's to check.
namespace OrvPlatform::ConnmanMessages {

constexpr const char* NAME = "net.connman";
constexpr const char* MANAGER = "net.connman.Manager";
constexpr const char* SERVICE = "net.connman.Service";

/// More services than that, and more name servers of one service, are not read.
constexpr std::size_t MOST_SERVICES = 256;
constexpr std::size_t MOST_SERVERS = 16;

ORV_SHARED_WITH_TOOLS DBusMessagePtr AddMatch(const std::string& rule);
ORV_SHARED_WITH_TOOLS DBusMessagePtr GetNameOwner();

/// Calls to the connection manager, by its unique name `owner`: an order for one that has ended must not reach the
/// next.
ORV_SHARED_WITH_TOOLS DBusMessagePtr GetServices(const std::string& owner);
DBusMessagePtr MoveBefore(const std::string& owner, const std::string& path, const std::string& before);
DBusMessagePtr SetConfiguredServers(const std::string& owner, const std::string& path,
                                    const std::vector<std::string>& servers);

/// GetNameOwner's answer; empty when it names nobody's unique name.
ORV_SHARED_WITH_TOOLS std::string ReadOwner(DBusMessage& reply);

/// NameOwnerChanged: the new owner of the connection manager's name, empty for none. Nothing for any other signal.
std::optional<std::string> ReadNewOwner(DBusMessage& signal);

/// GetServices' answer.
ORV_SHARED_WITH_TOOLS std::optional<std::vector<ConnmanServiceUpdate>> ReadServices(DBusMessage& reply);

bool IsServicesChanged(DBusMessage& signal);
bool IsPropertyChanged(DBusMessage& signal);

struct ServicesChanged {
    std::vector<ConnmanServiceUpdate> ordered;
    std::vector<std::string> removed;
};
std::optional<ServicesChanged> ReadServicesChanged(DBusMessage& signal);

/// PropertyChanged of a service.
std::optional<ConnmanServiceUpdate> ReadPropertyChanged(DBusMessage& signal);

} // namespace OrvPlatform::ConnmanMessages
