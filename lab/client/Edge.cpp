// SPDX-License-Identifier: Apache-2.0
// The edge of the client library: what it asks of the broker connection, of the clocks and of the log is witnessed and
// goes on to whoever does it.
#include "client/Edge.h"

#include "client/Neighbour.h"
#include "client/Witness.h"
#include "quillogger/LogWrapper.h"
#include "sim/LabLog.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace OrvLab {

Time Edge::wallClockAhead = 0;
std::function<Time()> Edge::onPublished;

namespace {

struct Owner {
    std::string name;
    bool isOthers;
};

std::map<const void*, Owner>& Owners() {
    static std::map<const void*, Owner> owners;
    return owners;
}

std::size_t CountOwners(bool others) {
    return static_cast<std::size_t>(std::count_if(Owners().begin(), Owners().end(),
                                                  [&](const auto& one) { return one.second.isOthers == others; }));
}

std::string OwnerAt(const void* owner) {
    const auto found = Owners().find(owner);
    return found != Owners().end() ? found->second.name : "nobody";
}

bool IsOfTheLibrary(const std::string& logger) {
    return logger == "OrvRoute" || logger == "OrvSessionMqtt" || logger == "OrvStackClient";
}

/// Locks that the library holds while it asks for something.
std::map<const Simulation::Thread*, int>& LocksAtEdge() {
    static std::map<const Simulation::Thread*, int> locks;
    return locks;
}

bool Take(const LabLog::Record& record) {
    Simulation& sim = *Simulation::Current();
    if (!IsOfTheLibrary(record.logger)) {
        const auto outer = LocksAtEdge().find(&sim.Self());
        const int locks = outer != LocksAtEdge().end() ? outer->second : 0;
        if (sim.Self().locks != locks)
            sim.Fail("writes to the log and holds a lock of its own: " + record.text);
        if (locks == 0)
            return false;
        sim.Trace("    log: " + record.text);
        sim.Step("log");
        return true;
    }
    if (Witness::Current() != nullptr)
        Witness::Current()->Note(Edge::Record(record.level, record.logger, record.tag, record.text));
    sim.Step("log of the client library");
    return true;
}

template <typename Call>
auto Asked(const std::string& what, Call call) {
    Witness& witness = *Witness::Current();
    witness.Note(what);
    witness.sim.Step("at the edge");
    // The machine may do something else just here.
    if (LabLog::longestStall != 0 && witness.sim.OneInSchedule(30))
        witness.sim.Stall(static_cast<Time>(witness.sim.AnyNumber() % 50) * MILLISECOND);
    LocksAtEdge()[&witness.sim.Self()] = witness.sim.Self().locks;
    const auto result = Watch(call);
    LocksAtEdge().erase(&witness.sim.Self());
    witness.Answer(what, result);
    return result;
}

template <typename Call>
int Published(const std::string& what, Call call) {
    const int status = Asked(what, call);
    const Time duration = Edge::onPublished ? Edge::onPublished() : 0;
    if (duration != 0)
        Witness::Current()->sim.Stall(duration);
    Witness::Current()->sim.Step("published");
    return status;
}

} // namespace

std::string Edge::Record(const std::string& level, const std::string& logger, const std::string& tag,
                         const std::string& text) {
    return "log " + level + " " + logger + " [" + tag + "] " + text;
}

void Edge::Begin() {
    Owners().clear();
    LocksAtEdge().clear();
    wallClockAhead = 0;
    onPublished = nullptr;
    LabLog::taker = Take;
}

namespace {

/// Those that the library has started.
std::vector<Simulation::Thread*> ThreadsOfTheLibrary() {
    Simulation& sim = *Simulation::Current();
    std::vector<Simulation::Thread*> found;
    for (int number = 1; Simulation::Thread* thread = sim.Find(number); ++number)
        if (thread->name.rfind("thread ", 0) == 0 && thread->side == sim.Self().side)
            found.push_back(thread);
    return found;
}

} // namespace

bool Edge::IsAThreadHeldUp() {
    const auto all = ThreadsOfTheLibrary();
    return std::any_of(all.begin(), all.end(),
                       [](const Simulation::Thread* thread) { return !thread->ended && thread->isReady == nullptr; });
}

void Edge::ComesBehindTheThreads() {
    for (const Simulation::Thread* thread : ThreadsOfTheLibrary())
        Races::Acquire(thread);
}

std::size_t Edge::LivingOwners() {
    return CountOwners(false);
}

std::size_t Edge::LivingOwnersOfOthers() {
    return CountOwners(true);
}

std::string Edge::Publication(const std::string& owner, bool retained, bool assured, const std::string& topic,
                              const std::string& payload) {
    return "publish " + owner + (retained ? " retained" : "") + (assured ? " assured " : " ") + topic + "=" + payload;
}

} // namespace OrvLab

using OrvLab::Asked;
using OrvLab::Edge;
using OrvLab::Neighbour;
using OrvLab::OwnerAt;
using OrvLab::Owners;
using OrvLab::Published;
using OrvLab::Simulation;
using OrvLab::Witness;

namespace quillogger {

void LogWrapper::Log(int level, bool flag, const char* file, int line, const char* function, const char* format, ...) {
    const OrvLab::Unwatched unwatched;
    if (Witness::Current() == nullptr)
        return;
    char text[1000];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    Witness::Current()->Note("log " + std::to_string(level) + (flag ? " on storage " : " ") + file + ":" +
                             std::to_string(line) + " " + function + ": " + text);
    Simulation::Current()->Step("log of the client library");
}

} // namespace quillogger

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier)

void __real__ZN8QUILMQTT10QueueOwnerC2ERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(void* self,
                                                                                              const std::string& id);
void __real__ZN8QUILMQTT10QueueOwnerD2Ev(void* self);
bool __real__ZN8QUILMQTT10QueueOwner7ConnectEv(void* self);
bool __real__ZN8QUILMQTT10QueueOwner7ConnectERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES8_b(
    void* self, const std::string& topic, const std::string& message, bool retained);
bool __real__ZN8QUILMQTT10QueueOwner9SubscribeERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEi(
    void* self, const std::string& filter, int qos);
int __real__ZN8QUILMQTT10QueueOwner14PublishMessageERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES8_b(
    void* self, const std::string& topic, const std::string& payload, bool assured);
int __real__ZN8QUILMQTT10QueueOwner22PublishRetainedMessageERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES8_b(
    void* self, const std::string& topic, const std::string& payload, bool assured);
bool __real__ZN8QUILMQTT10QueueOwner10DisconnectEv(void* self);
void __real__ZN8QUILMQTT10QueueOwner12StopDeliveryEv(void* self);
std::int64_t __real__ZNK11OrvStackSdk8OrvRoute8RealTimeclEv(const void* self);
std::int64_t __real__ZNSt6chrono3_V212system_clock3nowEv();

void __wrap__ZN8QUILMQTT10QueueOwnerC2ERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(void* self,
                                                                                              const std::string& id) {
    const OrvLab::Unwatched unwatched;
    Owners()[self] = {id, Neighbour::IsAtWork(*Simulation::Current())};
    OrvLab::Watch(
        [&] { __real__ZN8QUILMQTT10QueueOwnerC2ERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(self, id); });
}

void __wrap__ZN8QUILMQTT10QueueOwnerD2Ev(void* self) {
    const OrvLab::Unwatched unwatched;
    OrvLab::Watch([&] { __real__ZN8QUILMQTT10QueueOwnerD2Ev(self); });
    Owners().erase(self);
}

bool __wrap__ZN8QUILMQTT10QueueOwner7ConnectEv(void* self) {
    const OrvLab::Unwatched unwatched;
    return Asked("connect " + OwnerAt(self), [&] { return __real__ZN8QUILMQTT10QueueOwner7ConnectEv(self); });
}

bool __wrap__ZN8QUILMQTT10QueueOwner7ConnectERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES8_b(
    void* self, const std::string& topic, const std::string& message, bool retained) {
    const OrvLab::Unwatched unwatched;
    return Asked("connect " + OwnerAt(self) + " will " + topic + "=" + message + (retained ? " retained" : ""), [&] {
        return __real__ZN8QUILMQTT10QueueOwner7ConnectERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES8_b(
            self, topic, message, retained);
    });
}

bool __wrap__ZN8QUILMQTT10QueueOwner9SubscribeERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEi(
    void* self, const std::string& filter, int qos) {
    const OrvLab::Unwatched unwatched;
    return Asked("subscribe " + OwnerAt(self) + " " + filter + " " + std::to_string(qos), [&] {
        return __real__ZN8QUILMQTT10QueueOwner9SubscribeERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEi(
            self, filter, qos);
    });
}

int __wrap__ZN8QUILMQTT10QueueOwner14PublishMessageERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES8_b(
    void* self, const std::string& topic, const std::string& payload, bool assured) {
    const OrvLab::Unwatched unwatched;
    return Published(Edge::Publication(OwnerAt(self), false, assured, topic, payload), [&] {
        return __real__ZN8QUILMQTT10QueueOwner14PublishMessageERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES8_b(
            self, topic, payload, assured);
    });
}

int __wrap__ZN8QUILMQTT10QueueOwner22PublishRetainedMessageERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES8_b(
    void* self, const std::string& topic, const std::string& payload, bool assured) {
    const OrvLab::Unwatched unwatched;
    return Published(Edge::Publication(OwnerAt(self), true, assured, topic, payload), [&] {
        return __real__ZN8QUILMQTT10QueueOwner22PublishRetainedMessageERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES8_b(
            self, topic, payload, assured);
    });
}

bool __wrap__ZN8QUILMQTT10QueueOwner10DisconnectEv(void* self) {
    const OrvLab::Unwatched unwatched;
    return Asked("disconnect " + OwnerAt(self), [&] { return __real__ZN8QUILMQTT10QueueOwner10DisconnectEv(self); });
}

void __wrap__ZN8QUILMQTT10QueueOwner12StopDeliveryEv(void* self) {
    const OrvLab::Unwatched unwatched;
    Asked("stop the delivery of " + OwnerAt(self), [&] {
        __real__ZN8QUILMQTT10QueueOwner12StopDeliveryEv(self);
        return 0;
    });
}

// What a poke and the route call time.
std::int64_t __wrap__ZNK11OrvStackSdk8OrvRoute8RealTimeclEv(const void* self) {
    const OrvLab::Unwatched unwatched;
    const std::int64_t time = OrvLab::Watch([&] { return __real__ZNK11OrvStackSdk8OrvRoute8RealTimeclEv(self); });
    if (Witness::Current() != nullptr)
        Witness::Current()->Note("clock", time);
    return time;
}

std::int64_t __wrap__ZNSt6chrono3_V212system_clock3nowEv() {
    const OrvLab::Unwatched unwatched;
    Simulation* simulation = Simulation::Current();
    if (simulation == nullptr || Witness::Current() == nullptr)
        return __real__ZNSt6chrono3_V212system_clock3nowEv();
    simulation->Step("read the wall clock");
    const std::int64_t time = 1'794'813'600 * OrvLab::SECOND + simulation->Now() + Edge::wallClockAhead;
    Witness::Current()->Note("wall clock", time);
    return time;
}
// NOLINTEND(bugprone-reserved-identifier)
}
