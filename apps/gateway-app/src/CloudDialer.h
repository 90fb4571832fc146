// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "EventLoop.h"
#include "Mailbox.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

struct mosquitto;

namespace GatewayApp {

/// Where the cloud's broker is and how to trust it.
struct CloudSettings {
    std::string host;
    std::uint16_t port = 8883;
    /// File of the trusted CAs; empty: the system's.
    std::string caFile;
    std::string clientId;

    bool operator==(const CloudSettings& other) const {
        return host == other.host && port == other.port && caFile == other.caFile && clientId == other.clientId;
    }
    bool operator!=(const CloudSettings& other) const { return !(*this == other); }
};

/// A connection to the cloud's broker that has been begun: its name is resolved, its socket is connecting.
struct MosquittoDeleter {
    void operator()(mosquitto* handle) const;
};
using MosquittoHandle = std::unique_ptr<mosquitto, MosquittoDeleter>;

struct Dialled {
    MosquittoHandle handle; // null when it failed
    std::string failure;
};

/// Begins connections. Resolving a name cannot be interrupted and takes as long as silent name servers let it; it must
/// not hold up the loop, so it happens on a helper thread that knows nothing but the settings it was given. The handle
/// belongs to one thread at a time: to the helper until it is handed over, then to the loop's.
class CloudDialer {
public:
    using Callback = std::function<void(Dialled dialled)>;

    explicit CloudDialer(EventLoop& eventLoop);
    /// Helpers that are still resolving are left behind; what they begin is dropped.
    ~CloudDialer();

    /// Begins a connection; `callback` runs on the loop's thread. A call before this one is forgotten: its callback
    /// will not run.
    void Dial(const CloudSettings& settings, Callback callback);
    /// Forgets the call that is under way.
    void Abandon();

    /// Helper threads that have not ended.
    static int Helpers();

private:
    struct Call;
    EventLoop& loop;
    std::shared_ptr<Mailbox> mailbox;
    std::shared_ptr<Call> current;
};

} // namespace GatewayApp
