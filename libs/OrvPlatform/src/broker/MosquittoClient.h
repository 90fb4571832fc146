// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

struct mosquitto;
struct mosquitto_message;

namespace OrvPlatform {

/// What a MosquittoClient reports, from inside its own operations on the calling thread. Nothing may be thrown: these
/// are called through a C library.
class MosquittoEvents {
public:
    virtual void OnConnack(int code) noexcept = 0; // 0: accepted; otherwise the broker's refusal
    virtual void OnDisconnected(int error) noexcept = 0;
    virtual void OnMessage(const char* topic, const void* payload, std::size_t size) noexcept = 0;
    virtual void
    OnPublishCompleted(int messageId) noexcept = 0; // written (at most once) or acknowledged (at least once)
    virtual void OnSuback(int messageId, bool granted) noexcept = 0;

protected:
    ~MosquittoEvents() = default;
};

struct LastWill {
    std::string topic;
    std::string message;
    bool retained = false;
};

struct MosquittoSettings {
    std::string clientId;
    std::string host;   // an address, not a name; or the path of a unix socket
    std::uint16_t port; // 0 for a unix socket
    std::chrono::seconds keepAlive;
    std::string username; // empty for none
    std::string password;
    std::optional<LastWill> will;
};

/// One libmosquitto client without a thread: the caller polls its socket and calls Read, Write and KeepAlive. No
/// operation blocks except Disconnect and DropConnection. Not safe for several threads at a time. Integer results are
/// MOSQ_ERR_ codes, 0 for success.
class MosquittoClient {
public:
    using Time = std::chrono::steady_clock::time_point;

    /// @return null when the library refuses settings in which FaultIn() finds no fault; `error` then says why
    static std::unique_ptr<MosquittoClient> Make(const MosquittoSettings& settings, MosquittoEvents& events,
                                                 int& error);
    ~MosquittoClient(); // closes without a good-bye
    MosquittoClient(const MosquittoClient&) = delete;
    MosquittoClient& operator=(const MosquittoClient&) = delete;

    int BeginConnect();
    /// The same once more, with what was published at least once and is not acknowledged yet.
    int BeginReconnect();

    int Socket() const; // -1 for none
    bool WantsWrite() const;
    int Read(); // what has arrived, up to a limit
    int Write();
    int KeepAlive();

    int Subscribe(const std::string& filter, int qos, int& messageId);
    int Publish(const std::string& topic, const std::string& payload, bool assured, bool retained, int& messageId);

    /// Sends what is waiting and a DISCONNECT, and waits until the broker has closed the connection, at the latest
    /// until `deadline`. Reports no more events. The last operation.
    void Disconnect(Time deadline);

    /// The same without a DISCONNECT: what is waiting arrives, then the broker speaks the last will. The last
    /// operation.
    void DropConnection(Time deadline);

private:
    struct Destroyer {
        void operator()(mosquitto* client) const noexcept;
    };

    MosquittoClient(const MosquittoSettings& settings, MosquittoEvents& receiver);
    int Configure(const MosquittoSettings& settings);
    int SetCloseOnExec(int error); // after a connect
    void End(Time deadline, bool withDisconnect);
    void WriteAll(Time deadline);

    static void OnConnectCallback(mosquitto*, void* self, int code) noexcept;
    static void OnDisconnectCallback(mosquitto*, void* self, int error) noexcept;
    static void OnMessageCallback(mosquitto*, void* self, const mosquitto_message* message) noexcept;
    static void OnPublishCallback(mosquitto*, void* self, int messageId) noexcept;
    static void OnSubscribeCallback(mosquitto*, void* self, int messageId, int count, const int* granted) noexcept;

    const std::string host;
    const std::uint16_t port;
    const std::chrono::seconds keepAlive;

    MosquittoEvents* events;
    std::unique_ptr<mosquitto, Destroyer> handle;
};

/// What MQTT has against these settings, in words that name the setting; empty when it has nothing.
std::string FaultIn(const MosquittoSettings& settings);

/// A MOSQ_ERR_ code in words; where it stands for a system error, `systemError` (an errno) in words.
std::string MosquittoErrorText(int error, int systemError);

/// The broker's refusal of a connection, in words, and what to do about it.
std::string RefusalText(int code);

} // namespace OrvPlatform
