// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "QuilMqtt/Kind.h"

#include <string>
#include <vector>

namespace QUILMQTT {

/// The process is its own broker: a publication is delivered at once, on the publisher's thread.
class QueueOwner {
public:
    explicit QueueOwner(const std::string& clientId);
    virtual ~QueueOwner();
    virtual void OnPublish(const std::string& topic, const std::string& message);
    virtual void OnConnect();
    virtual void OnDeliveryCompleted(const std::string& topic);
    bool Connect();
    bool Connect(const std::string& willTopic, const std::string& willMessage, bool willRetained);
    bool Subscribe(const std::string& filter, int qos);
    int PublishMessage(const std::string& topic, const std::string& payload, bool assured);
    int PublishRetainedMessage(const std::string& topic, const std::string& payload, bool assured);
    bool Disconnect();

#if MAKER_STOPS_DELIVERY
protected:
    void StopDelivery() noexcept;
#endif

private:
    void Forget();

    std::string id;
    std::vector<std::string> filters;
    bool connected = false;
};

} // namespace QUILMQTT
