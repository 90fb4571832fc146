// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ConnmanServices.h"
#include "MessageBus.h"

#include <string>
#include <vector>

/// The connection manager's D-Bus messages, to and from plain values. A message of another shape than expected reads as
/// far as it makes sense.
namespace OrvPlatform::ConnmanMessages {

constexpr const char* NAME = "net.connman";
constexpr const char* MANAGER = "net.connman.Manager";
constexpr const char* SERVICE = "net.connman.Service";

DBusMessagePtr AddMatch(const std::string& rule);
DBusMessagePtr GetNameOwner();
DBusMessagePtr GetServices();
DBusMessagePtr MoveBefore(const std::string& path, const std::string& before);
DBusMessagePtr SetConfiguredServers(const std::string& path, const std::vector<std::string>& servers);

/// GetNameOwner's answer.
std::string ReadOwner(DBusMessage& reply);

/// NameOwnerChanged: the new owner of the connection manager's name, empty for none.
std::string ReadNewOwner(DBusMessage& signal);

/// GetServices' answer.
std::vector<ConnmanServiceNews> ReadServices(DBusMessage& reply);

struct ServicesChanged {
    std::vector<ConnmanServiceNews> ordered;
    std::vector<std::string> removed;
};
ServicesChanged ReadServicesChanged(DBusMessage& signal);

/// PropertyChanged of a service.
ConnmanServiceNews ReadPropertyChanged(DBusMessage& signal);

} // namespace OrvPlatform::ConnmanMessages
