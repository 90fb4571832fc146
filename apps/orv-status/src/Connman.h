// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Snapshot.h"

#include <base/Waker.h>
#include <connman/MessageBus.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

namespace OrvStatus {

/// Follows ConnMan's services, on a thread of its own because its bus may be frozen. Orders nothing.
class Connman {
public:
    /// @param address of the message bus
    explicit Connman(std::string address);
    ~Connman();
    Connman(const Connman&) = delete;
    Connman& operator=(const Connman&) = delete;

    ConnmanView View() const;
    /// Readable when there is something new, until TakeChanged.
    int Descriptor() const { return news.Descriptor(); }
    void TakeChanged() { news.Clear(); }

private:
    void Run();
    void Follow(OrvPlatform::MessageBus& bus);
    ConnmanView ReadServices(OrvPlatform::MessageBus& bus);
    void SetView(ConnmanView fresh);

    const std::string busAddress;
    OrvPlatform::Waker stop;
    OrvPlatform::Waker news;
    std::atomic<bool> stopping{false};

    mutable std::mutex mutex;
    ConnmanView view;

    std::thread thread;
};

} // namespace OrvStatus
