// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "connman/SimulatedBus.h"
#include "torture/SmallServer.h"

#include <string>
#include <vector>

namespace OrvLab {

struct BusSession {
    OrvTest::Descriptor socket;
    std::string received;
    bool authenticated = false;
    bool ended = false;
};

/// A message bus with a connection manager, at a socket of its own. The connection manager has eth9 on top and lo
/// behind it, and obeys.
class SmallBus : public SmallServer<BusSession> {
public:
    explicit SmallBus(const std::string& path);
    ~SmallBus() override;

    std::string Top() const;
    /// The name servers that the interface was given last.
    std::vector<std::string> Servers(const std::string& interfaceName) const;

private:
    void Read(BusSession& session) override;
    bool Greet(BusSession& session);
    bool Take(BusSession& session);
    void Handle(BusSession& session, DBusMessage& call);
    Message Carry(DBusMessage& call, std::vector<Message>& news);
    void Send(BusSession& session, DBusMessage& message, const char* sender);

    std::vector<LabService> services{{"eth9", "online", {}}, {"lo", "ready", {}}};
    dbus_uint32_t lastSerial = 0;
};

} // namespace OrvLab
