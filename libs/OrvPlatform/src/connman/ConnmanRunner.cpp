// SPDX-License-Identifier: Apache-2.0
#include "connman/ConnmanRunner.h"

#include "connman/ConnmanMessages.h"
#include "log/LogLevels.h"

#include <algorithm>
#include <pthread.h>

namespace OrvPlatform {

namespace {

std::string Listed(const std::vector<std::string>& servers) {
    if (servers.empty())
        return "as the network offers";
    std::string text;
    for (const std::string& server : servers)
        text += (text.empty() ? "" : ", ") + server;
    return text;
}

} // namespace

ConnmanRunner::ConnmanRunner(std::shared_ptr<ConnmanShared> state, std::string address, const ConnmanLimits& timeLimits,
                             ConnmanRole role)
    : shared(std::move(state)),
      busAddress(std::move(address)),
      limits(timeLimits),
      logger("ConnmanCommands", static_cast<int>(LogLevel::TRACE)),
      bus(shared->waker, [this] { return IsStopping(); }),
      leftoversDone(role == ConnmanRole::ONLOOKER),
      backoff(limits.firstRetry, limits.longestRetry) {
    bus.OnSignal([this](DBusMessage& signal) { HandleSignal(signal); });
}

void ConnmanRunner::Run() {
    pthread_setname_np(pthread_self(), "orv-connman");
    dbus_connection_set_change_sigpipe(FALSE); // the process's signals are the application's
    while (!IsStopping()) {
        try {
            RunOnce();
        } catch (const std::exception& exception) {
            Fail(exception.what());
        }
    }
}

void ConnmanRunner::Fail(const char* reason) noexcept {
    bus.Close();
    connected = false;
    nextTry = Clock::now() + limits.longestRetry;
    try {
        BusFailed(reason);
    } catch (const std::exception&) {
        owner.clear(); // no memory to say so; the next try comes all the same
    }
}

void ConnmanRunner::RunOnce() {
    LogNotes();
    if (!bus.IsOpen()) {
        if (connected)
            BusLost();
        if (Clock::now() < nextTry)
            bus.Wait(nextTry);
        else
            Connect();
        return;
    }
    bus.HandleArrived();
    if (bus.IsOpen() && Clock::now() >= NextWake()) {
        QueryAgain();
        return; // what has arrived behind the answers comes first
    }
    const ConnmanCall next = NextCall();
    if (next.kind != ConnmanCall::Kind::NONE)
        Execute(next);
    else if (bus.IsOpen())
        bus.Wait(NextWake());
}

ConnmanRunner::Clock::time_point ConnmanRunner::NextWake() const {
    const Clock::time_point forDoubt = doubted ? nextDoubt : Clock::time_point::max();
    return owner.empty() || stale ? std::min(nextTry, forDoubt) : forDoubt;
}

void ConnmanRunner::QueryAgain() {
    if (owner.empty() || (doubted && Clock::now() >= nextDoubt)) {
        doubted = false;
        nextDoubt = Clock::now() + limits.longestRetry;
        const std::string failure = FindOwner();
        if (!failure.empty() && !IsStopping()) {
            bus.Close();
            connected = false;
            BusFailed(failure);
        }
    }
    if (bus.IsOpen() && !owner.empty() && stale && Clock::now() >= nextTry)
        Refresh(nullptr);
}

void ConnmanRunner::Connect() {
    std::string failure = bus.Open(busAddress, limits.greeting);
    if (failure.empty())
        failure = SubscribeAndFindOwner();
    if (IsStopping())
        return;
    connected = failure.empty();
    connectedSince = Clock::now();
    if (!connected) {
        bus.Close();
        BusFailed(failure);
    }
}

std::string ConnmanRunner::SubscribeAndFindOwner() {
    const std::string sender = std::string("sender='") + ConnmanMessages::NAME + "',";
    const std::string rules[] = {
        std::string("type='signal',sender='" DBUS_SERVICE_DBUS "',member='NameOwnerChanged',arg0='") +
            ConnmanMessages::NAME + "'",
        "type='signal'," + sender + "interface='" + ConnmanMessages::MANAGER + "',member='ServicesChanged'",
        "type='signal'," + sender + "interface='" + ConnmanMessages::SERVICE + "',member='PropertyChanged'",
    };
    for (const std::string& rule : rules) {
        const MessageBus::Reply reply = bus.CallBus(ConnmanMessages::AddMatch(rule), limits.greeting);
        if (!reply.message)
            return reply.error;
    }
    return FindOwner();
}

/// @return empty when it is known who the connection manager is, or that there is none; otherwise why the bus is of no
/// use
std::string ConnmanRunner::FindOwner() {
    const MessageBus::Reply reply = bus.CallBus(ConnmanMessages::GetNameOwner(), limits.greeting);
    if (!reply.message && !reply.isOwnerless)
        return reply.error;
    const std::string name = reply.message ? ConnmanMessages::ReadOwner(*reply.message) : std::string();
    if (reply.message && name.empty())
        return std::string("it names no owner of ") + ConnmanMessages::NAME;
    OwnerIs(name);
    return {};
}

void ConnmanRunner::BusLost() {
    connected = false;
    if (Clock::now() - connectedSince > limits.longestRetry)
        backoff.Reset();
    BusFailed("connection lost");
}

void ConnmanRunner::BusFailed(const std::string& reason) {
    nextTry = Clock::now() + backoff.Next();
    SetAway(Loss::BUS,
            "the message bus at " + busAddress + " is not reachable (" + reason + "); orders wait until it is");
}

void ConnmanRunner::OwnerIs(const std::string& name) {
    if (name.empty()) {
        nextTry = Clock::now() + backoff.Next();
        SetAway(Loss::MANAGER,
                std::string(ConnmanMessages::NAME) + " is not on the message bus; orders wait until it is");
        return;
    }
    greeted = greeted && owner == name;
    owner = name;
    stale = true;
    nextTry = Clock::now();
}

void ConnmanRunner::SetAway(Loss loss, const std::string& text) {
    owner.clear();
    stale = true;
    {
        const MutexLock lock(shared->mutex);
        shared->picture = ConnmanShared::Picture::AWAY;
        shared->services.Clear();
    }
    Report(loss, text);
}

void ConnmanRunner::Report(Loss loss, const std::string& text) {
    if (reported != loss)
        logger.Warning() << text;
    reported = loss;
}

void ConnmanRunner::Refresh(const ConnmanCall* executed) {
    const std::string askedOwner = owner;
    MessageBus::Reply reply = Call(ConnmanMessages::GetServices(owner), "list the services");
    if (owner != askedOwner)
        reply.message.reset();
    if (!ApplyList(reply, executed)) {
        nextTry = Clock::now() + backoff.Next();
        if (bus.IsOpen() && owner == askedOwner && !owner.empty() && !IsStopping() && !OwnerHasGone(reply, askedOwner))
            Report(Loss::LIST, "the connection manager does not list its services: " +
                                   (reply.message ? "its answer is of an unknown form" : reply.error));
        return;
    }
    if (!greeted)
        logger.Info() << "connection manager found: " << Summary();
    greeted = true;
    reported = Loss::NONE;
    backoff.Reset();
}

bool ConnmanRunner::ApplyList(const MessageBus::Reply& reply, const ConnmanCall* executed) {
    const auto list = reply.message ? ConnmanMessages::ReadServices(*reply.message) : std::nullopt;
    ConnmanServices next = shared->Services();
    if (list)
        next.Replace(*list);
    const MutexLock lock(shared->mutex);
    if (executed)
        shared->orders.Done(*executed);
    stale = !list;
    if (stale)
        return false;
    shared->services.Swap(next);
    shared->picture = ConnmanShared::Picture::KNOWN;
    shared->orders.Retry();
    ForgetLeftovers();
    return true;
}

/// The bus said so in its answer to a call, and not before.
bool ConnmanRunner::OwnerHasGone(const MessageBus::Reply& reply, const std::string& askedOwner) {
    if (!reply.isOwnerless || owner != askedOwner)
        return false;
    owner.clear();
    stale = true;
    nextTry = Clock::now() + backoff.Next();
    const MutexLock lock(shared->mutex);
    shared->picture = ConnmanShared::Picture::AWAY;
    shared->services.Clear();
    return true;
}

// A process that ended between "no servers" and "the network's servers again" would leave the interface without name
// servers for good: nothing could be reached over it, and nobody would try.
void ConnmanRunner::ForgetLeftovers() {
    if (leftoversDone)
        return;
    leftoversDone = true;
    for (const ConnmanService& service : shared->services.All()) {
        if (service.Connected() && service.servers.empty() && service.configuredServers.empty() &&
            !shared->orders.HasServersFor(service.interfaceName))
            shared->orders.OrderServers(service.interfaceName, {});
    }
}

void ConnmanRunner::Execute(const ConnmanCall& call) {
    const bool isMove = call.kind == ConnmanCall::Kind::MOVE;
    const std::string what =
        isMove ? "put " + call.interfaceName + " on top" : "set name servers of " + call.interfaceName;
    const std::string askedOwner = owner;
    const MessageBus::Reply reply = Call(isMove ? ConnmanMessages::MoveBefore(owner, call.path, call.before)
                                                : ConnmanMessages::SetConfiguredServers(owner, call.path, call.servers),
                                         what);
    if (reply.message && isMove) {
        logger.Info() << call.interfaceName << " is put on top";
        Refresh(&call);
    } else if (reply.message) {
        logger.Info() << "name servers of " << call.interfaceName << ": " << Listed(call.servers);
        const MutexLock lock(shared->mutex);
        shared->services.NoteWritten(call.path, call.servers);
        shared->orders.Done(call);
    } else if (bus.IsOpen() && owner == askedOwner && !IsStopping() && !OwnerHasGone(reply, askedOwner)) {
        std::string message;
        {
            const MutexLock lock(shared->mutex);
            message = shared->orders.Refused(call, reply.error + Remedy(call, reply.error));
        }
        if (!message.empty())
            logger.Warning() << message;
    }
}

/// What a site has to set whose networks have different IP families: ConnMan keeps that, so it is nobody's to set
/// unasked. Whether they differ is not known here: a method that is not "off" may have found no address.
std::string ConnmanRunner::Remedy(const ConnmanCall& call, const std::string& error) const {
    if (call.kind != ConnmanCall::Kind::MOVE || error.find("InvalidService") == std::string::npos)
        return {};
    const std::string command = shared->services.RemedyForMove(call.path, call.before);
    return command.empty() ? command : "; if their IP families differ, \"" + command + "\" lets them be moved";
}

MessageBus::Reply ConnmanRunner::Call(DBusMessagePtr message, const std::string& what) {
    const Clock::time_point start = Clock::now();
    bool overdue = false;
    MessageBus::Reply reply = bus.Call(std::move(message), limits.answer, [&] {
        overdue = true;
        logger.Warning() << "the connection manager is asked to " << what << " and has not answered for "
                         << limits.answer.count() << " ms; waiting for it";
    });
    if (overdue && reply.message) {
        const auto taken = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
        logger.Info() << "the connection manager answers again, after " << taken.count() << " ms";
    }
    return reply;
}

ConnmanCall ConnmanRunner::NextCall() {
    std::vector<std::string> messages;
    ConnmanCall next;
    {
        const MutexLock lock(shared->mutex);
        if (shared->picture == ConnmanShared::Picture::KNOWN && !stale)
            next = shared->orders.Next(shared->services, messages);
    }
    for (const std::string& message : messages)
        logger.Warning() << message;
    return next;
}

void ConnmanRunner::LogNotes() {
    std::vector<std::string> notes;
    {
        const MutexLock lock(shared->mutex);
        notes.swap(shared->notes);
    }
    for (const std::string& note : notes)
        logger.Warning() << note;
}

void ConnmanRunner::HandleSignal(DBusMessage& signal) {
    if (dbus_message_has_sender(&signal, DBUS_SERVICE_DBUS)) {
        if (const std::optional<std::string> name = ConnmanMessages::ReadNewOwner(signal)) {
            backoff.Reset();
            OwnerIs(*name);
        }
        return;
    }
    if (!owner.empty() && !dbus_message_has_sender(&signal, owner.c_str()))
        HandleStranger(signal);
    // While stale, the list that will be asked for knows all that comes before it.
    else if (owner.empty() || stale)
        return;
    else if (ConnmanMessages::IsServicesChanged(signal))
        HandleServicesChanged(signal);
    else if (ConnmanMessages::IsPropertyChanged(signal))
        HandlePropertyChanged(signal);
}

void ConnmanRunner::HandleServicesChanged(DBusMessage& signal) {
    const std::optional<ConnmanMessages::ServicesChanged> changed = ConnmanMessages::ReadServicesChanged(signal);
    ConnmanServices next = shared->Services();
    stale = !changed || !next.Reorder(changed->ordered, changed->removed);
    if (!changed)
        return;
    const MutexLock lock(shared->mutex);
    shared->services.Swap(next);
    shared->orders.Retry();
}

void ConnmanRunner::HandlePropertyChanged(DBusMessage& signal) {
    const std::optional<ConnmanServiceUpdate> news = ConnmanMessages::ReadPropertyChanged(signal);
    if (!news)
        return;
    const MutexLock lock(shared->mutex);
    shared->services.Update(*news);
    if (news->state || news->immutable)
        shared->orders.Retry();
}

// Whoever pretends to be the connection manager may also have filled the bus's queue, so that true signals were lost.
void ConnmanRunner::HandleStranger(DBusMessage& signal) {
    doubted = true;
    if (strangerReported)
        return;
    strangerReported = true;
    const char* interface = dbus_message_get_interface(&signal);
    logger.Warning() << "a signal " << (interface ? interface : "") << "." << dbus_message_get_member(&signal)
                     << " from " << dbus_message_get_sender(&signal)
                     << ", which is not the connection manager, is ignored; so will be all others, without a word";
}

bool ConnmanRunner::IsStopping() const {
    const MutexLock lock(shared->mutex);
    return shared->stopping;
}

std::string ConnmanRunner::Summary() const {
    std::string text;
    const ConnmanServices services = shared->Services();
    for (const ConnmanService& service : services.All()) {
        const bool bound = !service.interfaceName.empty();
        text += (text.empty() ? "" : ", ") +
                (bound ? service.interfaceName : service.path.substr(service.path.rfind('/') + 1));
        text += (bound ? " " : " (no interface) ") + service.state;
    }
    return text.empty() ? "no services" : text;
}

} // namespace OrvPlatform
