// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "CloudSettings.h"
#include "EventLoop.h"
#include "Mailbox.h"
#include "TlsContext.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace GatewayApp {

/// What a connection needs before it can be begun.
struct Dialled {
    std::unique_ptr<TlsContext> tls; // null when it failed
    std::string password;
    std::vector<std::string> addresses; // numeric, best first, never empty
    std::string failure;
};

/// The addresses in the order in which to try them: the resolver's, with the families in turn.
std::vector<std::string> InTurn(const std::vector<std::string>& addresses);

/// The socket's own address in numbers; empty when it has none.
std::string OwnAddress(int socket);

/// The addresses without those that would be reached from an own address for which `isDetour` holds; all when no route
/// leads to any other. Asks the kernel, sends nothing.
std::vector<std::string> WithoutDetours(const std::vector<std::string>& addresses,
                                        const std::function<bool(const std::string& source)>& isDetour);

/// Resolves the name and reads the credentials. Resolving a name cannot be interrupted and takes as long as silent name
/// servers let it; it must not hold up the loop, so it happens on a helper thread that knows nothing but the settings
/// it was given. What it makes belongs to one thread at a time: to the helper until it is handed over, then to the
/// loop's.
class CloudDialer {
public:
    using Callback = std::function<void(Dialled dialled)>;

    explicit CloudDialer(EventLoop& eventLoop);
    /// Helpers that are still resolving are left behind; what they find is dropped.
    ~CloudDialer();

    /// Begins; `callback` runs on the loop's thread. A call before this one is forgotten: its callback
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
