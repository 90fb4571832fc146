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
Message Reordered(const std::vector<LabService>& services);
Message StateChanged(const LabService& service);
/// The name servers in use, or those that are configured.
Message ServersChanged(const LabService& service, bool inUse);
Message OwnerChanged(const std::string& before, const std::string& after);

/// The first argument, a text or a path.
std::string FirstText(DBusMessage& message);
std::vector<std::string> WrittenServers(DBusMessage& call);
/// For those who read a course.
std::string Text(DBusMessage& message);

} // namespace OrvLab::BusMessages
