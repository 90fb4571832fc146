// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "MqttPacket.h"
#include "torture/SmallServer.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace OrvLab {

struct BrokerSession {
    OrvTest::Descriptor socket;
    std::vector<std::string> filters;
    bool ended = false;
};

/// A broker on 127.0.0.1. It keeps what is retained and passes messages on.
class SmallBroker : public SmallServer<BrokerSession> {
public:
    SmallBroker();
    ~SmallBroker() override;

    std::uint16_t Port() const { return OrvTest::PortOf(listener); }
    void Send(const char* topic, const char* payload);
    /// The same, for those who subscribe from now on.
    void Retain(const char* topic, const char* payload);
    /// The latest message on that topic, retained or not; empty for none.
    std::string Latest(const char* topic) const;

private:
    void Read(BrokerSession& session) override;
    void PassOn(const OrvTest::MqttMessage& message);

    std::map<std::string, std::string> latest;
    std::map<std::string, std::string> retained;
};

} // namespace OrvLab
