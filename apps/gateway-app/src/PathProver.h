// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "CloudDialer.h"
#include "EventLoop.h"
#include "Mailbox.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace GatewayApp {

/// Tries whether the cloud's broker can be reached over one interface, whoever has the default route: a TLS connection
/// bound to the interface, which must then show signs of life for a while. No MQTT is spoken, because the client id is
/// in use. It runs on a helper thread; the result comes to the loop's thread.
class PathProver {
public:
    enum class Cause : int { OTHER, NAME, ROUTE };
    struct Result {
        bool good = false;
        std::string failure;    ///< what went wrong
        bool connected = false; ///< the connection had been made before it failed
        bool tls = false;       ///< TLS was what failed
        Cause cause = Cause::OTHER;
    };
    using Callback = std::function<void(const Result& result)>;

    /// @throws std::system_error
    explicit PathProver(EventLoop& eventLoop);
    ~PathProver();

    /// Begins; `callback` is called once, unless another call of Begin or Stop comes first.
    /// @param hold for how long the connection must live
    void Begin(const CloudSettings& settings, const std::string& interface, std::chrono::seconds hold,
               Callback callback);
    void Stop();

    /// How many helper threads there are in the process: one ends within a second after Stop, but for a look-up, which
    /// cannot be interrupted.
    static int Helpers();

private:
    struct Attempt;

    EventLoop& loop;
    std::shared_ptr<Mailbox> mailbox;
    std::shared_ptr<Attempt> current;
};

} // namespace GatewayApp
