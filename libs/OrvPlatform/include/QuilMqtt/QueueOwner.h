// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#pragma GCC visibility push(default)
namespace QUILMQTT {

/// One connection to the gateway's local MQTT broker; a class that wants messages derives from it.
///
/// Threads: every operation may be called from any thread, from inside the callbacks too. The callbacks run on the
/// connection's own delivery thread, one at a time and in the order of arrival, and never while an internal lock is
/// held. A callback that takes its time delays the callbacks of this connection, not those of another; one that takes
/// longer than the configured keep-alive may cost the connection. An exception that leaves a callback is logged and
/// goes no further.
///
/// Offline: nothing is queued. A command that could arrive minutes late is worse than one refused, so a publication
/// without a connection returns a non-zero status at once. What was handed over while connected with `assured`, and not
/// acknowledged when the connection broke, is sent again with the next connection that is made by itself.
///
/// State is another matter: a retained message, or any message on the will's topic, supersedes what was said on its
/// topic before, whether it could be sent or not. So that nothing superseded comes back as the truth, this object
/// remembers what it was last asked to publish on each of these topics; a malformed or too large publication does not
/// count. The memory is bounded by the configured limit of outstanding bytes.
///
/// Reconnection: a connection that was once made and then lost is made again by itself, at growing intervals (0.25 s
/// doubling to 4 s, with jitter). Then, in this order: the subscriptions are made again; the remembered state is
/// published, each message as it was asked for; then OnConnect is called. State that is refused while there is a
/// connection is published as soon as there is room. A Connect() by the application begins afresh: it makes no
/// subscription and announces nothing.
///
/// Fork: an object belongs to the process that made it. In a child every operation is refused, and its destruction
/// leaves the parent's connection alone.
///
/// Destruction: a class that overrides a callback calls StopDelivery() first thing in its destructor, otherwise a
/// message may be delivered into an object whose members are gone. Destruction with an open connection drops it without
/// a good-bye, so that the broker publishes the last will; what was published before is sent first, for at most 0.2 s.
/// It waits for a callback that is under way, unless it is itself called there: an object may be destroyed inside its
/// own callback.
class QueueOwner {
public:
    /// What a publication returns. Any value but 0 means that nothing was sent. A command is never sent later; state is
    /// (see above).
    /// Where the settings name another program as the gateway's controller, a publication on one of the gateway's
    /// topics is dropped and returns 0 all the same.
    enum PublishStatus : int {
        HANDED_OVER = 0,
        NOT_CONNECTED = 1,     ///< no connection at the moment; it is being made again when it was lost
        MALFORMED_TOPIC = 2,   ///< empty, with a wildcard or a NUL, not UTF-8, or longer than 65535 bytes
        PAYLOAD_TOO_LARGE = 3, ///< larger than the configured limit of outstanding bytes can ever admit
        OUTSTANDING_FULL = 4,  ///< the broker does not keep up, the configured limit of outstanding bytes is reached
        FAILED = 5             ///< out of memory
    };

    /// Makes an unconnected client. No network activity, no thread.
    /// @param clientId how the broker knows this client. The configured client-id suffix is appended, so that several
    ///                 applications on one gateway do not throw each other off the broker.
    explicit QueueOwner(const std::string& clientId);
    virtual ~QueueOwner();
    QueueOwner(const QueueOwner&) = delete;
    QueueOwner& operator=(const QueueOwner&) = delete;

    /// A message has arrived on a subscribed filter. Both strings may hold any bytes. Does nothing by default.
    virtual void OnPublish(const std::string& topic, const std::string& message);

    /// The connection stands, for the first time or again, subscriptions and retained state included.
    /// Does nothing by default.
    virtual void OnConnect();

    /// A publication made with `assured` has been acknowledged by the broker. Does nothing by default.
    virtual void OnDeliveryCompleted(const std::string& topic);

    /// Connects to the configured broker and waits for its answer, at most 3 s. A callback that is under way meanwhile
    /// does not hold it up. A second call while connected says good-bye and connects anew; without a will in the first
    /// form, with the new will in the second. Subscriptions made before are forgotten with the old connection.
    /// @return true when the broker has accepted the connection. After false nothing is retried: call again.
    bool Connect();

    /// @param willTopic, willMessage, willRetained  what the broker publishes when the connection ends without
    /// Disconnect()
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

    /// Says good-bye (the last will stays silent) and closes the connection, within 1 s also when the broker is mute.
    /// What was published before is sent first. No callback is begun after it has returned; one that is under
    /// way on the delivery thread is not waited for, unlike by StopDelivery.
    /// @return true when there was a connection to close.
    bool Disconnect();

protected:
    /// After it returns no OnPublish runs or will run, until the next Connect(). Callable on the delivery thread too,
    /// where the callback under way is the last one. Not a Disconnect: the connection stays as it is.
    void StopDelivery() noexcept;

private:
    class Core;
    std::shared_ptr<Core> core;
};

} // namespace QUILMQTT
#pragma GCC visibility pop
