// SPDX-License-Identifier: Apache-2.0
#include "ConnmanRunner.h"

#include "ConnmanMessages.h"

#include <algorithm>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

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

ConnmanShared::ConnmanShared() : wakeDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

ConnmanShared::~ConnmanShared() {
    close(wakeDescriptor);
}

void ConnmanShared::Wake() const noexcept {
    eventfd_write(wakeDescriptor, 1);
}

void ConnmanShared::NoteOnce(const std::string& text) {
    constexpr std::size_t ENOUGH = 32;
    if (noted.size() < ENOUGH && noted.insert(text).second) {
        notes.push_back(text);
        Wake();
    }
}

void ConnmanShared::End() {
    const std::lock_guard<std::mutex> lock(mutex);
    ended = true;
    hasEnded.notify_all();
}

ConnmanRunner::ConnmanRunner(std::shared_ptr<ConnmanShared> state, std::string address, const ConnmanLimits& timeLimits)
    : shared(std::move(state)),
      busAddress(std::move(address)),
      limits(timeLimits),
      logger("ConnmanCommands", 0),
      bus(shared->wakeDescriptor, [this] { return IsStopping(); }),
      retryDelay(limits.firstRetry) {
    bus.OnSignal([this](DBusMessage& signal) { HandleSignal(signal); });
}

void ConnmanRunner::Run() {
    pthread_setname_np(pthread_self(), "orv-connman");
    dbus_connection_set_change_sigpipe(FALSE); // the process's signals are the application's
    while (!IsStopping()) {
        try {
            GoOn();
        } catch (const std::exception& exception) {
            bus.Close();
            BusFailed(exception.what());
        }
    }
}

void ConnmanRunner::GoOn() {
    LogNotes();
    if (!bus.IsOpen()) {
        if (!owner.empty())
            BusFailed("connection lost");
        if (Clock::now() < nextTry)
            bus.Wait(nextTry);
        else
            Connect();
        return;
    }
    if (stale && !owner.empty() && Clock::now() >= nextTry)
        Refresh(nullptr);
    const ConnmanStep step = NextStep();
    if (step.kind != ConnmanStep::Kind::NONE)
        CarryOut(step);
    else if (bus.IsOpen())
        bus.Wait(stale && !owner.empty() ? nextTry : Clock::time_point::max());
}

void ConnmanRunner::Connect() {
    std::string failure = bus.Open(busAddress, limits.greeting);
    if (failure.empty())
        failure = Introduce();
    if (IsStopping())
        return;
    if (!failure.empty()) {
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
    bool overdue = false;
    const auto onOverdue = [&] { overdue = true; };
    for (const std::string& rule : rules) {
        const MessageBus::Reply reply = bus.Call(ConnmanMessages::AddMatch(rule), limits.greeting, onOverdue);
        if (!reply.message)
            return reply.error;
    }
    const MessageBus::Reply reply = bus.Call(ConnmanMessages::GetNameOwner(), limits.greeting, onOverdue);
    if (!bus.IsOpen())
        return reply.error;
    retryDelay = limits.firstRetry;
    OwnerIs(reply.message ? ConnmanMessages::ReadOwner(*reply.message) : std::string());
    return {};
}

void ConnmanRunner::BusFailed(const std::string& reason) {
    Away(Loss::BUS, "the message bus at " + busAddress + " is not reachable (" + reason + "); orders wait until it is");
    nextTry = Clock::now() + NextRetry();
}

void ConnmanRunner::OwnerIs(const std::string& name) {
    if (name.empty()) {
        Away(Loss::MANAGER, std::string(ConnmanMessages::NAME) + " is not on the message bus; orders wait until it is");
        return;
    }
    owner = name;
    stale = true;
    greeted = false;
    nextTry = Clock::now();
    retryDelay = limits.firstRetry;
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
    const MessageBus::Reply reply = Ask(ConnmanMessages::GetServices(), "list the services");
    std::string summary;
    {
        const std::lock_guard<std::mutex> lock(shared->mutex);
        if (accomplished)
            shared->wanted.Done(*accomplished);
        if (!reply.message) {
            stale = true;
        } else if (owner == askedOwner) {
            shared->services.Replace(ConnmanMessages::ReadServices(*reply.message));
            shared->picture = ConnmanShared::Picture::KNOWN;
            shared->wanted.Retry();
            stale = false;
            ForgetLeftovers();
            summary = Summary();
        }
    }
    if (stale) {
        nextTry = Clock::now() + NextRetry();
        if (bus.IsOpen() && owner == askedOwner && !owner.empty() && !IsStopping())
            Report(Loss::LIST, "the connection manager does not list its services: " + reply.error);
        return;
    }
    if (!greeted)
        logger.Info() << "connection manager found: " << summary;
    greeted = true;
    reported = Loss::NONE;
    retryDelay = limits.firstRetry;
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
    const MessageBus::Reply reply = Ask(isMove ? ConnmanMessages::MoveBefore(step.path, step.before)
                                               : ConnmanMessages::SetConfiguredServers(step.path, step.servers),
                                        what);
    if (reply.message && isMove) {
        logger.Info() << step.interfaceName << " is put on top";
        Refresh(&step);
    } else if (reply.message) {
        logger.Info() << "name servers of " << step.interfaceName << ": " << Listed(step.servers);
        const std::lock_guard<std::mutex> lock(shared->mutex);
        shared->services.NoteWritten(step.path, step.servers);
        shared->wanted.Done(step);
    } else if (bus.IsOpen() && owner == askedOwner && !owner.empty()) {
        std::string remark;
        {
            const std::lock_guard<std::mutex> lock(shared->mutex);
            remark = shared->wanted.Refused(step, reply.error);
        }
        if (!remark.empty())
            logger.Warning() << remark;
    }
}

MessageBus::Reply ConnmanRunner::Ask(DBusMessagePtr message, const std::string& what) {
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
    if (dbus_message_is_signal(&signal, DBUS_INTERFACE_DBUS, "NameOwnerChanged")) {
        OwnerIs(ConnmanMessages::ReadNewOwner(signal));
        return;
    }
    // While the list is asked for, the answer will know all that the signals before it tell.
    if (owner.empty() || stale || !dbus_message_has_sender(&signal, owner.c_str()))
        return;
    const std::lock_guard<std::mutex> lock(shared->mutex);
    if (dbus_message_is_signal(&signal, ConnmanMessages::MANAGER, "ServicesChanged")) {
        const ConnmanMessages::ServicesChanged changed = ConnmanMessages::ReadServicesChanged(signal);
        stale = !shared->services.Reorder(changed.ordered, changed.removed);
        shared->wanted.Retry();
    } else if (dbus_message_is_signal(&signal, ConnmanMessages::SERVICE, "PropertyChanged")) {
        const ConnmanServiceNews news = ConnmanMessages::ReadPropertyChanged(signal);
        shared->services.Update(news);
        if (news.state || news.immutable)
            shared->wanted.Retry();
    }
}

std::chrono::milliseconds ConnmanRunner::NextRetry() {
    const std::chrono::milliseconds delay = retryDelay;
    retryDelay = std::min(retryDelay * 2, limits.longestRetry);
    return delay;
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
