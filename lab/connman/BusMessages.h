// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "connman/SimulatedBus.h"

#include <string>
#include <vector>

/// What the bus, the connection manager and others say, as libdbus' messages.
namespace OrvLab::BusMessages {

Message Return(DBusMessage& call, const std::string& text);
/// Without content, for the call of this number.
Message Return(dbus_uint32_t serial);
Message Error(DBusMessage& call, const std::string& name);
Message Services(DBusMessage& call, const std::vector<LabService>& services);
/// For the call of this number.
Message Error(dbus_uint32_t serial, const std::string& name);
/// With all properties of all services.
Message Reordered(const std::vector<LabService>& services);
/// As the connection manager tells it: nothing of a service but its place, unless it is one of `fresh`.
Message Reordered(const std::vector<LabService>& services, const std::vector<std::string>& fresh,
                  const std::vector<std::string>& removed);
Message StateChanged(const LabService& service);
Message ImmutableChanged(const LabService& service);
/// The name servers in use, or those that are configured.
Message ServersChanged(const LabService& service, bool inUse);
Message OwnerChanged(const std::string& before, const std::string& after, const char* name = "net.connman");
/// What has the form of news of the service, or of all, and not their types.
std::vector<Message> Nonsense(const LabService& service);

/// The first argument, a text or a path.
std::string FirstText(DBusMessage& message);
std::vector<std::string> WrittenServers(DBusMessage& call);
/// For those who read a course.
std::string Text(DBusMessage& message);

} // namespace OrvLab::BusMessages
