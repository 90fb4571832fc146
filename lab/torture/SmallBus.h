// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sockets.h"
#include "connman/SimulatedBus.h"

#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace OrvLab {

/// A message bus with a connection manager, at a socket of its own, in a thread of this process that never fails. The
/// connection manager has eth9 on top and lo behind it, and obeys.
class SmallBus {
public:
    explicit SmallBus(const std::string& path);
    ~SmallBus();
    SmallBus(const SmallBus&) = delete;
    SmallBus& operator=(const SmallBus&) = delete;

    /// Every connection ends; another one is accepted.
    void DropAll();
    std::string Top() const;
    /// The name servers that the interface was given last.
    std::vector<std::string> Servers(const std::string& interfaceName) const;

private:
    struct Session {
        OrvTest::Descriptor socket;
        std::string received;
        bool authenticated = false;
        bool ended = false;
    };

    void Serve();
    void Read(Session& session);
    bool Greet(Session& session);
    bool Take(Session& session);
    void Handle(Session& session, DBusMessage& call);
    Message Carry(DBusMessage& call, std::vector<Message>& news);
    void Send(Session& session, DBusMessage& message, const char* sender);

    OrvTest::Descriptor listener;
    mutable std::mutex mutex;
    bool stopping = false;
    std::list<Session> sessions;
    std::vector<LabService> services{{"eth9", "online", {}}, {"lo", "ready", {}}};
    dbus_uint32_t lastSerial = 0;
    std::thread thread;
};

} // namespace OrvLab
