// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Planner.h"

#include <base/Waker.h>
#include <connman/MessageBus.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace OrvSourceRoutes {

/// Follows which service is ConnMan's first and which name servers they have, on a thread of its own because its bus
/// may be frozen. Orders nothing.
class ConnmanDefault {
public:
    /// @param address of the message bus
    /// @param wait for an answer of the bus
    explicit ConnmanDefault(std::string address, std::chrono::milliseconds wait = std::chrono::seconds(1));
    ~ConnmanDefault();
    ConnmanDefault(const ConnmanDefault&) = delete;
    ConnmanDefault& operator=(const ConnmanDefault&) = delete;

    /// The default is the interface of the first service, if that is connected.
    ConnmanView View() const;
    /// ConnMan tells of a new order a tenth of a second after it has changed the routes: asks for it now.
    void AskAgain();
    /// Readable when View may have changed, until TakeChanged.
    int Descriptor() const { return news.Descriptor(); }
    void TakeChanged() { news.Clear(); }

private:
    void Run();
    bool Listen(OrvPlatform::MessageBus& bus);
    void Follow(OrvPlatform::MessageBus& bus);
    std::optional<ConnmanView> Ask(OrvPlatform::MessageBus& bus);
    void Set(const ConnmanView& fresh);

    const std::string busAddress;
    const std::chrono::milliseconds patience;
    OrvPlatform::Waker wake;
    OrvPlatform::Waker news;
    std::atomic<bool> stopping{false};
    std::atomic<bool> asked{false};

    mutable std::mutex mutex;
    ConnmanView view;

    std::thread thread;
};

} // namespace OrvSourceRoutes
