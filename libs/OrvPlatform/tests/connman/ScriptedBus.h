// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "connman/MessageBus.h"

#include <string>
#include <utility>
#include <vector>

namespace OrvTest {

/// One service in an answer or a signal of a scripted connection manager.
struct ScriptedService {
    std::string interfaceName;
    std::string state;
    std::string nameServer = "192.0.2.53";
};

/// A message bus, and everybody on it, played by the test: one client, to which it says what the test wants, in the
/// writes that the test wants. Whatever does not come in good time is an exception.
class ScriptedBus {
public:
    using Message = OrvPlatform::DBusMessagePtr;

    static constexpr const char* DRIVER = "org.freedesktop.DBus";
    static constexpr const char* MANAGER = ":1.7";   ///< the connection manager
    static constexpr const char* STRANGER = ":1.66"; ///< any local user

    /// @param rulesOfTheClient so many signals the client asks for
    explicit ScriptedBus(int rulesOfTheClient = 3);
    ~ScriptedBus();
    ScriptedBus(const ScriptedBus&) = delete;
    ScriptedBus& operator=(const ScriptedBus&) = delete;

    std::string Address() const { return "unix:path=" + folder + "/bus"; }

    /// The next client, authenticated.
    void Accept();
    /// The client's next call, which must be `member`.
    Message Expect(const std::string& member);
    /// Nothing comes from the client within `time`.
    bool IsQuiet(std::chrono::milliseconds time);
    /// In one write.
    template <typename... Messages>
    void Send(const Messages&... messages) {
        std::string bytes;
        (Append(*messages, bytes), ...);
        Write(bytes);
    }
    /// Ends the connection to the client.
    void HangUp();

    static Message Return(const Message& call, const std::string& sender);
    static Message Return(const Message& call, const std::string& sender, const std::string& text);
    static Message Error(const Message& call, const std::string& sender, const std::string& name);
    static Message Services(const Message& call, const std::vector<ScriptedService>& services);
    static Message Signal(const std::string& sender, const std::string& path, const std::string& interface,
                          const std::string& member);
    static Message Call(const std::string& sender, const std::string& interface, const std::string& member);
    static Message OwnerChanged(const std::string& sender, const std::string& before, const std::string& after);
    static Message StateChanged(const std::string& sender, const ScriptedService& news);
    static Message Reordered(const std::string& sender, const std::vector<ScriptedService>& services);
    /// State, interface and a name server, into a dictionary.
    static void AppendProperties(DBusMessageIter& dictionary, const ScriptedService& service);
    static std::string PathOf(const std::string& interfaceName) { return "/net/connman/service/" + interfaceName; }

    /// The greeting and what comes behind it, up to the question who the connection manager is.
    Message SetUpMatches();
    /// All of that, and the list of services.
    void SetUpWith(const std::vector<ScriptedService>& services);

private:
    void Append(DBusMessage& message, std::string& bytes);
    void Write(const std::string& bytes) const;
    void ReadMore();

    const int matchRules;
    std::string folder;
    int listener = -1;
    int client = -1;
    std::string received;
    dbus_uint32_t lastSerial = 0;
};

} // namespace OrvTest
