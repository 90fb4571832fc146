// SPDX-License-Identifier: Apache-2.0
#include "connman/ConnmanLink.h"

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

ConnmanLink::ConnmanLink(const std::string& address, const ConnmanLimits& timeLimits, ConnmanRole ownRole)
    : busAddress(address), limits(timeLimits), role(ownRole), shared(std::make_shared<ConnmanShared>()) {}

ConnmanLink::~ConnmanLink() {
    Stop();
}

std::string ConnmanLink::TopPriorityInterface() {
    const std::lock_guard<std::mutex> lock(shared->mutex);
    if (!IsRunning() || shared->picture != ConnmanShared::Picture::KNOWN)
        return {};
    return shared->services.TopInterface();
}

bool ConnmanLink::SetTopPriorityInterface(const std::string& interfaceName) {
    const std::lock_guard<std::mutex> lock(shared->mutex);
    if (!IsRunning())
        return false;
    if (interfaceName.empty()) {
        shared->NoteOnce("an order to put an interface on top names none: check [interfaces] in the configuration");
        return false;
    }
    const bool known = shared->picture == ConnmanShared::Picture::KNOWN;
    // An order under way may still change the top, so only without one is the picture's word the last one.
    if (known && !shared->wanted.HasTop() && shared->services.TopInterface() == interfaceName)
        return true;
    shared->wanted.WantTop(interfaceName);
    shared->waker.Wake();
    return CanCarryOutNow(interfaceName, true);
}

bool ConnmanLink::SetDnsConfiguration(const std::string& interfaceName, const std::vector<std::string>& servers) {
    const std::lock_guard<std::mutex> lock(shared->mutex);
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
    if (service && !shared->wanted.HasServersFor(interfaceName) && service->HasServers(wanted))
        return true;
    shared->wanted.WantServers(interfaceName, wanted);
    shared->waker.Wake();
    return CanCarryOutNow(interfaceName, false);
}

bool ConnmanLink::CanCarryOutNow(const std::string& interfaceName, bool mustBeConnected) const {
    if (shared->picture != ConnmanShared::Picture::KNOWN)
        return shared->picture == ConnmanShared::Picture::UNKNOWN;
    const ConnmanService* service = shared->services.Of(interfaceName);
    return service && (mustBeConnected ? service->Connected() : !service->immutable);
}

bool ConnmanLink::IsRunning() {
    if (shared->stopping)
        return false;
    if (thread)
        return true;
    if (!shared->waker.Open())
        return false; // no descriptor to be had; the next call tries again
    try {
        const AllSignalsBlocked blocked;
        thread = std::make_unique<std::thread>(
            [runnersShared = shared, address = busAddress, runnersLimits = limits, runnersRole = role] {
                ConnmanRunner(runnersShared, address, runnersLimits, runnersRole).Run();
                runnersShared->End();
            });
        return true;
    } catch (const std::exception&) {
        return false; // no thread to be had; the next call tries again
    }
}

void ConnmanLink::Stop() noexcept {
    std::unique_lock<std::mutex> lock(shared->mutex);
    shared->stopping = true;
    shared->waker.Wake();
    if (!thread)
        return;
    // A bus whose backlog is full holds the thread inside connect(); the process must end all the same.
    const bool inTime = shared->hasEnded.wait_for(lock, limits.stop, [this] { return shared->ended; });
    lock.unlock();
    if (inTime)
        thread->join();
    else
        thread->detach();
    thread.reset();
}

void ConnmanLink::BeforeFork() noexcept {
    // Connecting to a bus whose backlog is full can hold the library; the fork must come about all the same.
    const bool inTime = LibdbusMutex().try_lock_for(limits.fork);
    shared->mutex.lock();
    hasLibrary = inTime; // another thread's fork has its own word there until it lets go of the mutex
}

void ConnmanLink::AfterForkInParent() noexcept {
    const bool holdsLibrary = hasLibrary;
    shared->mutex.unlock();
    if (holdsLibrary)
        LibdbusMutex().unlock();
}

void ConnmanLink::AfterForkInChild() noexcept {
    if (hasLibrary)
        LibdbusMutex().unlock();
    parentsShared = std::move(shared);
    parentsThread = thread.release();
    shared = std::make_shared<ConnmanShared>();
    shared->stopping = parentsShared->stopping || !hasLibrary;
}

std::string ConnmanLink::BusAddress(const std::string& configured) {
    if (!configured.empty())
        return configured;
    const char* named = ::secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return named && *named ? named : "unix:path=/run/dbus/system_bus_socket";
}

} // namespace OrvPlatform
