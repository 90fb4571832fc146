// SPDX-License-Identifier: Apache-2.0
#include "connman/ConnmanClient.h"

#include "base/IpAddress.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>

namespace OrvPlatform {

namespace {

/// Threads inherit the mask: signals are the application's business, not this thread's.
class AllSignalsBlocked {
public:
    AllSignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

private:
    sigset_t before{};
};

/// The unspecified address means "no server at all". ConnMan would make a route of it, and take that for a default
/// route.
std::vector<std::string> ForConnman(std::vector<std::string> servers) {
    const bool any = !servers.empty();
    servers.erase(std::remove_if(servers.begin(), servers.end(), IsUnspecifiedAddress), servers.end());
    if (any && servers.empty())
        servers.emplace_back(NO_SERVERS);
    return servers;
}

} // namespace

ConnmanClient::ConnmanClient(const std::string& address, const ConnmanLimits& timeLimits, ConnmanRole ownRole)
    : busAddress(address), limits(timeLimits), role(ownRole), shared(std::make_shared<ConnmanShared>()) {}

ConnmanClient::~ConnmanClient() {
    Stop();
}

std::string ConnmanClient::TopPriorityInterface() {
    const MutexLock lock(shared->mutex);
    if (!IsRunning() || shared->picture != ConnmanShared::Picture::KNOWN)
        return {};
    return shared->services.TopInterface();
}

bool ConnmanClient::SetTopPriorityInterface(const std::string& interfaceName) {
    const MutexLock lock(shared->mutex);
    if (!IsRunning())
        return false;
    if (interfaceName.empty()) {
        shared->NoteOnce("an order to put an interface on top names none: check [interfaces] in the configuration");
        return false;
    }
    const bool known = shared->picture == ConnmanShared::Picture::KNOWN;
    // An order under way may still change the top, so only without one is the picture's word the last one.
    if (known && !shared->orders.HasTop() && shared->services.TopInterface() == interfaceName)
        return true;
    shared->orders.OrderTop(interfaceName);
    shared->waker.Wake();
    return CanExecuteNow(interfaceName, true);
}

bool ConnmanClient::SetDnsConfiguration(const std::string& interfaceName, const std::vector<std::string>& servers) {
    const MutexLock lock(shared->mutex);
    if (!IsRunning())
        return false;
    if (interfaceName.empty()) {
        shared->NoteOnce("a DNS setting names no interface: check [interfaces] in the configuration");
        return false;
    }
    const auto wrong = std::find_if_not(servers.begin(), servers.end(), IsIpAddress);
    if (wrong != servers.end()) {
        shared->NoteOnce("cannot set name servers of " + interfaceName + ": \"" + *wrong + "\" is no IP address");
        return false;
    }
    const std::vector<std::string> wanted = ForConnman(servers);
    const bool known = shared->picture == ConnmanShared::Picture::KNOWN;
    const ConnmanService* service = known ? shared->services.Of(interfaceName) : nullptr;
    if (service && !shared->orders.HasServersFor(interfaceName) && service->HasServers(wanted))
        return true;
    shared->orders.OrderServers(interfaceName, wanted);
    shared->waker.Wake();
    return CanExecuteNow(interfaceName, false);
}

bool ConnmanClient::CanExecuteNow(const std::string& interfaceName, bool mustBeConnected) const {
    if (shared->picture != ConnmanShared::Picture::KNOWN)
        return shared->picture == ConnmanShared::Picture::UNKNOWN;
    const ConnmanService* service = shared->services.Of(interfaceName);
    return service && (mustBeConnected ? service->Connected() : !service->immutable);
}

bool ConnmanClient::IsRunning() {
    if (shared->stopping)
        return false;
    if (thread)
        return true;
    if (!shared->waker.Open())
        return false; // no descriptor to be had; the next call tries again
    try {
        // Made here: on the thread nobody could be told that there is no memory for it.
        auto made = std::make_unique<ConnmanRunner>(shared, busAddress, limits, role);
        const AllSignalsBlocked blocked;
        thread = std::make_unique<std::thread>([runnersShared = shared, runner = std::move(made)]() mutable {
            runner->Run();
            runner.reset();
            runnersShared->End();
        });
        return true;
    } catch (const std::exception&) {
        return false; // no thread or no memory to be had; the next call tries again
    }
}

void ConnmanClient::Stop() noexcept {
    bool inTime = false;
    {
        const MutexLock lock(shared->mutex);
        shared->stopping = true;
        if (!thread)
            return;
        shared->waker.Wake();
        // A bus whose backlog is full holds the thread inside connect(); the process must end all the same.
        const auto deadline = std::chrono::steady_clock::now() + limits.stop;
        while (!shared->ended && shared->hasEnded.wait_until(shared->mutex, deadline) != std::cv_status::timeout) {
        }
        inTime = shared->ended;
    }
    if (inTime)
        thread->join();
    else
        thread->detach();
    thread.reset();
}

void ConnmanClient::BeforeFork() noexcept {
    // Made here: the child may find no memory, and could not go on without.
    std::shared_ptr<ConnmanShared> made;
    try {
        made = std::make_shared<ConnmanShared>();
    } catch (const std::bad_alloc&) {
        // The child's calls will do nothing.
    }
    // Connecting to a bus whose backlog is full can hold the library; the fork must come about all the same.
    const bool inTime = TryLockLibdbusFor(limits.fork);
    shared->mutex.lock();
    childsShared = std::move(made);
    hasLibrary = inTime; // another thread's fork has its own word there until it lets go of the mutex
}

void ConnmanClient::AfterForkInParent() noexcept {
    const bool holdsLibrary = hasLibrary;
    childsShared.reset();
    shared->mutex.unlock();
    if (holdsLibrary)
        LibdbusMutex().unlock();
}

void ConnmanClient::AfterForkInChild() noexcept {
    if (hasLibrary)
        LibdbusMutex().unlock();
    parentsThread = thread.release();
    if (!childsShared) {
        shared->stopping = true;
        shared->mutex.unlock();
        return;
    }
    parentsShared = std::move(shared);
    shared = std::move(childsShared);
    shared->stopping = parentsShared->stopping || !hasLibrary;
}

} // namespace OrvPlatform
