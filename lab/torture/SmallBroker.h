// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "MqttPacket.h"
#include "Sockets.h"

#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace OrvLab {

/// A broker on 127.0.0.1, in a thread of this process that never fails. It keeps what is retained and passes messages
/// on.
class SmallBroker {
public:
    SmallBroker();
    ~SmallBroker();
    SmallBroker(const SmallBroker&) = delete;
    SmallBroker& operator=(const SmallBroker&) = delete;

    std::uint16_t Port() const { return OrvTest::PortOf(listener); }
    /// Every connection ends.
    void DropAll();
    void Send(const char* topic, const char* payload);
    /// The latest message on that topic, retained or not; empty for none.
    std::string Latest(const char* topic) const;

private:
    struct Session {
        OrvTest::Descriptor socket;
        std::vector<std::string> filters;
        bool ended = false;
    };

    void Serve();
    void Handle(Session& session);
    void Accept();
    void PassOn(const OrvTest::MqttMessage& message);

    const OrvTest::Descriptor listener;
    mutable std::mutex mutex;
    bool stopping = false;
    std::list<Session> sessions;
    std::map<std::string, std::string> latest;
    std::thread thread;
};

} // namespace OrvLab
