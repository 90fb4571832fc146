// SPDX-License-Identifier: Apache-2.0
#include "connman/ConnmanRunner.h"

#include "connman/ConnmanMessages.h"

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
      logger("ConnmanCommands", 0),
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
            GoOn();
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

void ConnmanRunner::GoOn() {
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
        AskAgain();
        return; // what has arrived behind the answers comes first
    }
    const ConnmanStep step = NextStep();
    if (step.kind != ConnmanStep::Kind::NONE)
        CarryOut(step);
    else if (bus.IsOpen())
        bus.Wait(NextWake());
}

ConnmanRunner::Clock::time_point ConnmanRunner::NextWake() const {
    const Clock::time_point forDoubt = doubted ? nextDoubt : Clock::time_point::max();
    return owner.empty() || stale ? std::min(nextTry, forDoubt) : forDoubt;
}

void ConnmanRunner::AskAgain() {
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
        failure = Introduce();
    if (IsStopping())
        return;
    connected = failure.empty();
    connectedSince = Clock::now();
    if (!connected) {
        bus.Close();
        BusFailed(failure);
    }
}

std::string ConnmanRunner::Introduce() {
    const std::string sender = std::string("sender='") + ConnmanMessages::NAME + "',";
    const std::string rules[] = {
        std::string("type='signal',sender='" DBUS_SERVICE_DBUS "',member='NameOwnerChanged',arg0='") +
            ConnmanMessages::NAME + "'",
        "type='signal'," + sender + "interface='" + ConnmanMessages::MANAGER + "',member='ServicesChanged'",
        "type='signal'," + sender + "interface='" + ConnmanMessages::SERVICE + "',member='PropertyChanged'",
    };
    for (const std::string& rule : rules) {
        const MessageBus::Reply reply = bus.Ask(ConnmanMessages::AddMatch(rule), limits.greeting);
        if (!reply.message)
            return reply.error;
    }
    return FindOwner();
}

/// @return empty when it is known who the connection manager is, or that there is none; otherwise why the bus is of no
/// use
std::string ConnmanRunner::FindOwner() {
    const MessageBus::Reply reply = bus.Ask(ConnmanMessages::GetNameOwner(), limits.greeting);
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
    Away(Loss::BUS, "the message bus at " + busAddress + " is not reachable (" + reason + "); orders wait until it is");
}

void ConnmanRunner::OwnerIs(const std::string& name) {
    if (name.empty()) {
        nextTry = Clock::now() + backoff.Next();
        Away(Loss::MANAGER, std::string(ConnmanMessages::NAME) + " is not on the message bus; orders wait until it is");
        return;
    }
    greeted = greeted && owner == name;
    owner = name;
    stale = true;
    nextTry = Clock::now();
}

void ConnmanRunner::Away(Loss loss, const std::string& text) {
    owner.clear();
    stale = true;
    {
        const std::lock_guard<std::mutex> lock(shared->mutex);
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

void ConnmanRunner::Refresh(const ConnmanStep* accomplished) {
    const std::string askedOwner = owner;
    MessageBus::Reply reply = Call(ConnmanMessages::GetServices(owner), "list the services");
    if (owner != askedOwner)
        reply.message.reset();
    if (!TakeOver(reply, accomplished)) {
        nextTry = Clock::now() + backoff.Next();
        if (bus.IsOpen() && owner == askedOwner && !owner.empty() && !IsStopping() &&
            !HasGoneUnheard(reply, askedOwner))
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

bool ConnmanRunner::TakeOver(const MessageBus::Reply& reply, const ConnmanStep* accomplished) {
    const auto list = reply.message ? ConnmanMessages::ReadServices(*reply.message) : std::nullopt;
    ConnmanServices next = shared->services;
    if (list)
        next.Replace(*list);
    const std::lock_guard<std::mutex> lock(shared->mutex);
    if (accomplished)
        shared->wanted.Done(*accomplished);
    stale = !list;
    if (stale)
        return false;
    shared->services.Swap(next);
    shared->picture = ConnmanShared::Picture::KNOWN;
    shared->wanted.Retry();
    ForgetLeftovers();
    return true;
}

/// The bus said so in its answer to a call, and not before.
bool ConnmanRunner::HasGoneUnheard(const MessageBus::Reply& reply, const std::string& askedOwner) {
    if (!reply.isOwnerless || owner != askedOwner)
        return false;
    owner.clear();
    stale = true;
    nextTry = Clock::now() + backoff.Next();
    const std::lock_guard<std::mutex> lock(shared->mutex);
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
            !shared->wanted.HasServersFor(service.interfaceName))
            shared->wanted.WantServers(service.interfaceName, {});
    }
}

void ConnmanRunner::CarryOut(const ConnmanStep& step) {
    const bool isMove = step.kind == ConnmanStep::Kind::MOVE;
    const std::string what =
        isMove ? "put " + step.interfaceName + " on top" : "set name servers of " + step.interfaceName;
    const std::string askedOwner = owner;
    const MessageBus::Reply reply = Call(isMove ? ConnmanMessages::MoveBefore(owner, step.path, step.before)
                                                : ConnmanMessages::SetConfiguredServers(owner, step.path, step.servers),
                                         what);
    if (reply.message && isMove) {
        logger.Info() << step.interfaceName << " is put on top";
        Refresh(&step);
    } else if (reply.message) {
        logger.Info() << "name servers of " << step.interfaceName << ": " << Listed(step.servers);
        const std::lock_guard<std::mutex> lock(shared->mutex);
        shared->services.NoteWritten(step.path, step.servers);
        shared->wanted.Done(step);
    } else if (bus.IsOpen() && owner == askedOwner && !IsStopping() && !HasGoneUnheard(reply, askedOwner)) {
        std::string remark;
        {
            const std::lock_guard<std::mutex> lock(shared->mutex);
            remark = shared->wanted.Refused(step, reply.error);
        }
        if (!remark.empty())
            logger.Warning() << remark;
    }
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

ConnmanStep ConnmanRunner::NextStep() {
    std::vector<std::string> remarks;
    ConnmanStep step;
    {
        const std::lock_guard<std::mutex> lock(shared->mutex);
        if (shared->picture == ConnmanShared::Picture::KNOWN && !stale)
            step = shared->wanted.Next(shared->services, remarks);
    }
    for (const std::string& remark : remarks)
        logger.Warning() << remark;
    return step;
}

void ConnmanRunner::LogNotes() {
    std::vector<std::string> notes;
    {
        const std::lock_guard<std::mutex> lock(shared->mutex);
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
        Doubt(signal);
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
    ConnmanServices next = shared->services;
    stale = !changed || !next.Reorder(changed->ordered, changed->removed);
    if (!changed)
        return;
    const std::lock_guard<std::mutex> lock(shared->mutex);
    shared->services.Swap(next);
    shared->wanted.Retry();
}

void ConnmanRunner::HandlePropertyChanged(DBusMessage& signal) {
    const std::optional<ConnmanServiceNews> news = ConnmanMessages::ReadPropertyChanged(signal);
    if (!news)
        return;
    const std::lock_guard<std::mutex> lock(shared->mutex);
    shared->services.Update(*news);
    if (news->state || news->immutable)
        shared->wanted.Retry();
}

// Whoever pretends to be the connection manager may also have filled the bus's queue, so that true signals were lost.
void ConnmanRunner::Doubt(DBusMessage& signal) {
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
    const std::lock_guard<std::mutex> lock(shared->mutex);
    return shared->stopping;
}

std::string ConnmanRunner::Summary() const {
    std::string text;
    for (const ConnmanService& service : shared->services.All())
        text += (text.empty() ? "" : ", ") + service.interfaceName + " " + service.state;
    return text.empty() ? "no services" : text;
}

} // namespace OrvPlatform
