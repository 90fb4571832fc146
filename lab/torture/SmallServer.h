// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sockets.h"
#include "torture/Failures.h"

#include <poll.h>
#include <sys/socket.h>

#include <list>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace OrvLab {

/// A server in a thread of this process that never fails. `Session` has a `socket`, and `ended` says that it is over.
template <typename Session>
class SmallServer {
public:
    SmallServer(const SmallServer&) = delete;
    SmallServer& operator=(const SmallServer&) = delete;

    /// Every connection ends; another one is accepted.
    void DropAll() {
        const Tortured notThis(false);
        const std::lock_guard<std::mutex> lock(mutex);
        for (Session& session : sessions)
            session.ended = true;
    }

protected:
    explicit SmallServer(OrvTest::Descriptor listening) : listener(std::move(listening)) {}
    virtual ~SmallServer() = default;

    /// For the end of a constructor; what it calls is called by its thread from then on.
    void Begin() {
        thread = std::thread([this] { Serve(); });
    }
    /// For the beginning of a destructor.
    void End() {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
        }
        thread.join();
    }

    /// There is something to read. The mutex is held.
    virtual void Read(Session& session) = 0;

    const OrvTest::Descriptor listener;
    mutable std::mutex mutex;
    std::list<Session> sessions;

private:
    static constexpr int LOOK_AGAIN = 5; // milliseconds

    void Serve() {
        for (;;) {
            std::vector<pollfd> waits{{listener.Get(), POLLIN, 0}};
            {
                const std::lock_guard<std::mutex> lock(mutex);
                if (stopping)
                    return;
                sessions.remove_if([](const Session& session) { return session.ended; });
                for (const Session& session : sessions)
                    waits.push_back({session.socket.Get(), POLLIN, 0});
            }
            if (poll(waits.data(), waits.size(), LOOK_AGAIN) > 0)
                Take(waits);
        }
    }

    void Take(const std::vector<pollfd>& waits) {
        const std::lock_guard<std::mutex> lock(mutex);
        auto session = sessions.begin();
        for (std::size_t index = 1; index < waits.size(); ++index, ++session)
            if (waits[index].revents != 0)
                Read(*session);
        if (waits[0].revents == 0)
            return;
        OrvTest::Descriptor socket(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (socket)
            sessions.push_back({std::move(socket), {}});
    }

    bool stopping = false;
    std::thread thread;
};

} // namespace OrvLab
