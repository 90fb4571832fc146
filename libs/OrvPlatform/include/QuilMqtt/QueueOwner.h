// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#pragma GCC visibility push(default)
namespace QUILMQTT {

/// One connection to the gateway's local MQTT broker; a class that wants messages derives from it.
///
/// Threads: every operation may be called on any thread, even inside a callback. The callbacks run on the connection's
/// own delivery thread, one at a time, in the order of arrival, and never while an internal lock is held. A slow
/// callback delays only the callbacks of its own connection. One that takes longer than one and a half times the
/// configured keep-alive may cost the connection. An exception that leaves a callback is logged and goes no further.
///
/// Offline: nothing is queued, because a command that arrives minutes late is worse than one that is refused. A
/// publication without a connection returns a non-zero status at once. An `assured` publication that was handed over
/// but not acknowledged when the connection broke is sent again after the next automatic reconnection.
///
/// State is treated differently. State is a retained message, or any message on the will's topic. It replaces what was
/// published on its topic before, whether it could be sent or not. This object remembers the last requested message of
/// each such topic, so that no outdated state is ever announced. A malformed or too large publication does not count.
/// The memory is limited by the configured limit of outstanding bytes.
///
/// Reconnection: a connection that is lost is restored automatically, at growing intervals (0.25 s doubling to 4 s,
/// with jitter). Then, in this order: the subscriptions are made again; the remembered state is published, each message
/// as it was requested; OnConnect is called. State that is refused on a connection is published as soon as there is
/// room. A Connect() by the application starts anew: it makes no subscription and announces nothing.
///
/// Fork: an object belongs to the process that made it. In a child every operation is refused, and its destruction
/// leaves the parent's connection alone.
///
/// Destruction: a derived class must call StopDelivery() at the beginning of its destructor, and in a constructor that
/// throws after Connect().
/// Otherwise a callback may run on an object whose members are already destroyed. Destruction with an open connection
/// closes it without a DISCONNECT packet, so that the broker publishes the last will. What was published before is sent
/// first, for at most 0.2 s. Destruction waits for a running callback, unless it happens inside that callback, which is
/// allowed.
class QueueOwner {
public:
    /// The result of a publication. Any value except 0 means that nothing was sent. A command is never sent later;
    /// state is (see above). If the settings name another program as the gateway's controller, a publication on one of
    /// the gateway's topics is dropped and still returns 0.
    enum PublishStatus : int {
        HANDED_OVER = 0,
        NOT_CONNECTED = 1,     ///< no connection at the moment; a lost one is being restored
        MALFORMED_TOPIC = 2,   ///< empty, with a wildcard or a NUL, not UTF-8, or longer than 65535 bytes
        PAYLOAD_TOO_LARGE = 3, ///< could never fit into the configured limit of outstanding bytes
        OUTSTANDING_FULL = 4,  ///< the broker does not keep up: the configured limit of outstanding bytes is reached
        FAILED = 5             ///< out of memory
    };

    /// Makes an unconnected client. No network activity, no thread.
    /// @param clientId the client's name at the broker. The configured client-id suffix is appended, so that several
    ///                 applications on one gateway do not disconnect each other.
    explicit QueueOwner(const std::string& clientId);
    virtual ~QueueOwner();
    QueueOwner(const QueueOwner&) = delete;
    QueueOwner& operator=(const QueueOwner&) = delete;

    /// A message has arrived on a subscribed filter. Both strings may hold any bytes. Does nothing by default.
    virtual void OnPublish(const std::string& topic, const std::string& message);

    /// The connection is made or restored, including subscriptions and retained state. Does nothing by default.
    virtual void OnConnect();

    /// A publication made with `assured` has been acknowledged by the broker. Does nothing by default.
    virtual void OnDeliveryCompleted(const std::string& topic);

    /// Connects to the configured broker and waits at most 3 s for its answer. A running callback does not delay it. A
    /// call while connected disconnects cleanly and connects again, without a will in this form and with the new will
    /// in the other. The subscriptions of the old connection are forgotten.
    /// @return true when the broker has accepted the connection. After false nothing is retried: call again.
    bool Connect();

    /// @param willTopic, willMessage, willRetained  what the broker publishes when the connection ends without
    ///        Disconnect()
    bool Connect(const std::string& willTopic, const std::string& willMessage, bool willRetained);

    /// Asks for the messages that match `filter`. Does not wait for the broker.
    /// The subscription lasts until Disconnect() or the next Connect(), over reconnections too. A refusal by the broker
    /// is logged.
    /// @param qos 0, 1 or 2: the quality of service up to which messages are wanted
    /// @return true when the request was handed over; false without a connection or for a malformed filter or qos.
    bool Subscribe(const std::string& filter, int qos);

    /// Publishes a message. Does not wait: neither for the broker nor for room in the socket.
    /// @param assured true for at-least-once delivery (QoS 1), false for at most once (QoS 0)
    /// @return 0 when the message was handed to the connection, otherwise a PublishStatus that says why not.
    int PublishMessage(const std::string& topic, const std::string& payload, bool assured);

    /// The same, and the broker keeps the message for those who subscribe later.
    int PublishRetainedMessage(const std::string& topic, const std::string& payload, bool assured);

    /// Disconnects cleanly: the broker does not publish the last will. Takes at most 1 s, even if the broker does not
    /// answer. What was published before is sent first. No callback begins after it has returned. Unlike StopDelivery,
    /// it does not wait for a running callback.
    /// @return true when there was a connection to close.
    bool Disconnect();

protected:
    /// After it has returned, no callback runs or begins until the next Connect(). It may be called on the delivery
    /// thread; the running callback is then the last one. The connection stays open.
    void StopDelivery() noexcept;

private:
    class Core;
    std::shared_ptr<Core> core;
};

} // namespace QUILMQTT
#pragma GCC visibility pop
