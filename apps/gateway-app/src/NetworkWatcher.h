// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "EventLoop.h"
#include "WanInterfaces.h"

#include <OrvNetlink/Socket.h>

#include <functional>
#include <optional>
#include <string>

namespace GatewayApp {

/// Follows the kernel's notifications about links, addresses and the default route.
class NetworkWatcher {
public:
    /// What the application does with the news; called on the loop's thread.
    struct Handler {
        /// @param events none when addresses have changed and no event follows from it
        std::function<void(const WanInterfaces::Events& events)> onEvents;
        /// @param interface who has the default route now; empty: nobody
        std::function<void(const std::string& interface)> onDefaultRoute;
    };

    /// Reads the present state, so that Wan() is true from now on, and calls nobody yet.
    /// @throws std::system_error
    NetworkWatcher(EventLoop& eventLoop, WanInterfaces wanInterfaces, Handler newsHandler);
    ~NetworkWatcher();

    const WanInterfaces& Wan() const { return wan; }
    /// The interface of the default route, IPv4's unless there is none or orv-source-routes has moved IPv6's elsewhere;
    /// empty: none.
    const std::string& DefaultInterface() const { return defaultInterface; }
    /// The interface as the kernel has it at this moment, its counts included; nothing when there is none.
    std::optional<OrvNetlink::Link> Find(const std::string& interface);

private:
    void ReadNotifications();
    WanInterfaces::Events Take(const nlmsghdr& message);
    WanInterfaces::Events ReadAll();
    WanInterfaces::Events ReadRouters();
    bool DumpRouters(std::vector<unsigned>& links);
    std::string FindDefaultInterface();

    EventLoop& loop;
    WanInterfaces wan;
    const Handler handler;
    OrvNetlink::Socket notifications;
    OrvNetlink::Socket requests;
    bool missedSome = false;       // notifications; everything has to be read
    bool routersMayDiffer = false; // IPv6's default routes have to be read
    bool addressesMayDiffer = false;
    std::string defaultInterface;
};

} // namespace GatewayApp
