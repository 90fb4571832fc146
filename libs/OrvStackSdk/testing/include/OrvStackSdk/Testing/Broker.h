// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace OrvStackSdk {
namespace Testing {

/// The gateway's MQTT broker, with everybody else who is connected to it.
///
/// Threads: callable from any thread, but what may deliver messages (Publish, Return) only from the test's, and not
/// from inside a callback.
class Broker {
public:
    /// A message that the broker has taken.
    struct Message {
        std::chrono::milliseconds at; ///< virtual time since the gateway was made
        std::string topic;            ///< as it was published
        std::string payload;          ///< any bytes
        bool retained;                ///< whether the broker was to keep it
    };

    /// Somebody else publishes: the panel, the modem, another application. Those who have subscribed get the message
    /// before this returns, unless the test has chosen slow delivery or a delivery thread.
    void Publish(const std::string& topic, const std::string& payload, bool retained = false);

    /// What the clients of this process have published, in order, since the gateway was made or since Clear; their last
    /// wills too, and what was announced again. What was refused is not among it.
    std::vector<Message> Published() const;

    /// The payloads among it on this topic.
    std::vector<std::string> Published(const std::string& topic) const;

    /// Forgets what has been published so far; what is retained stays.
    void Clear();

    /// What the broker keeps on the topic for those who come later; empty when there is nothing.
    std::string Retained(const std::string& topic) const;

    /// Whether the application is connected: the connection that Init makes.
    bool IsConnected() const;

    /// The broker ends, without a last will: all connections are lost, what was retained is gone, publications fail.
    void Lose();

    /// A new broker is there, with nothing retained. The connections are made again by themselves after the reconnect
    /// delay, as on a gateway: subscriptions first, then the state that was last asked for.
    void Return();

    /// Only the connections break; the broker lives on and speaks the last wills. They are made again after the
    /// reconnect delay.
    void BreakConnections();

    /// From now on no connection is accepted (CreateClient throws, Init answers NACK), or they are accepted again.
    /// Those that stand stay.
    void RefuseConnections(bool refuse);

    /// From now on Init alone is refused and answers NACK, though CreateClient succeeds, or is taken again. On a
    /// gateway the broker may go, or run out of connections, between the two. A connection that stands stays; once
    /// broken, it does not come back meanwhile.
    void RefuseInit(bool refuse);

    /// From now on publications are refused, as on a connection that does not keep up, or taken again.
    void RefusePublications(bool refuse);

    /// Slow delivery: messages reach the application this long after they were published, in their order.
    void SetLatency(std::chrono::milliseconds latency);

    /// How long a connection takes to come back, from the next Return, BreakConnections or end of a refusal on; 250 ms
    /// at first. On a gateway it is between 0.25 s and 4 s, the longer the broker was away.
    void SetReconnectDelay(std::chrono::milliseconds delay);

private:
    friend class Gateway;
    Broker() = default;
};

} // namespace Testing
} // namespace OrvStackSdk
