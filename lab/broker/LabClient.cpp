// SPDX-License-Identifier: Apache-2.0
#include "broker/Program.h"
#include "broker/Wire.h"

namespace OrvLab {

WatchedCall::WatchedCall(Program& where, Model& whose, const char* what, Time longest, bool callbacksToo)
    : program(where),
      model(whose),
      name(what),
      limit(longest),
      awaitsCallbacks(callbacksToo),
      stallTimeBefore(program.sim.StallTimeSoFar()) {
    program.sim.Trace("  " + program.sim.Self().name + " calls " + model.name + " " + name);
    place = program.calls.insert(program.calls.end(), this);
}

WatchedCall::~WatchedCall() {
    program.calls.erase(place);
    const Time stallTime = program.sim.StallTime() - stallTimeBefore;
    program.sim.Trace("  " + program.sim.Self().name + " comes back from " + model.name + " " + name);
    if (waited > limit + stallTime)
        program.sim.Fail(model.name + ": " + name + " has waited for " +
                         std::to_string(static_cast<double>(waited) / SECOND) + " s");
}

void WatchedCall::Jumped(Time by) {
    if (!awaitsCallbacks || !model.IsInCallback())
        waited += by;
}

LabClient::LabClient(Program& where, Model& story)
    : QueueOwner(story.name), program(where), model(story), canary(new int(story.number)) {}

LabClient::~LabClient() {
    const Unwatched unwatched;
    StopAsked();
    canary.reset();
    model.Destroyed();
}

bool LabClient::ConnectAsked(bool withWill) {
    constexpr Time LIMIT = 3100 * MILLISECOND;
    const std::string willTopic = withWill ? "w" + std::to_string(model.number) : std::string();
    const WatchedCall call(program, model, "Connect", LIMIT, false);
    model.BeginConnect(willTopic);
    const bool connected = Watch([&] { return withWill ? Connect(willTopic, "will", true) : Connect(); });
    model.EndConnect(connected);
    if (!connected && model.Session() != 0 && Wire::ClientsOf(model.name) != 0)
        program.sim.Fail(model.name + ": Connect returns false and leaves a client");
    return connected;
}

bool LabClient::DisconnectAsked() {
    const WatchedCall call(program, model, "Disconnect", SECOND, false);
    const int before = model.BeginDisconnect();
    const bool was = Watch([&] { return Disconnect(); });
    model.EndDisconnect(before);
    if (model.Session() != 0 && Wire::ClientsOf(model.name) != 0)
        program.sim.Fail(model.name + ": Disconnect leaves a client");
    return was;
}

bool LabClient::SubscribeAsked(const std::string& filter, int qos) {
    const WatchedCall call(program, model, "Subscribe", 0, false);
    const std::size_t which = model.BeginSubscribe(filter, qos);
    const bool made = Watch([&] { return Subscribe(filter, qos); });
    model.EndSubscribe(which, made);
    return made;
}

int LabClient::PublishAsked(const std::string& topic, const std::string& payload, bool retained, bool assured) {
    const WatchedCall call(program, model, "Publish", 0, false);
    const std::size_t which = model.BeginPublish(topic, payload, retained, assured);
    const int status = Watch([&] {
        return retained ? PublishRetainedMessage(topic, payload, assured) : PublishMessage(topic, payload, assured);
    });
    model.EndPublish(which, status);
    return status;
}

void LabClient::StopAsked() {
    const WatchedCall call(program, model, "StopDelivery", 0, true);
    const int before = model.BeginStop();
    Watch([&] { StopDelivery(); });
    model.EndStop(before);
}

template <typename Act>
void LabClient::Callback(const char* which, Act act) {
    const Unwatched unwatched;
    Program& where = program;
    Model& story = model; // the callback may destroy this
    story.BeginCallback(which);
    where.sim.Trace("  " + story.name + " is called: " + which);
    if (*canary != story.number)
        where.sim.Fail(story.name + ": called when its members are gone");
    where.sim.Step(which);
    act();
    where.ActAtRandom(this);
    where.sim.Step("return from the callback");
    story.EndCallback();
    where.ThrowAtRandom();
}

void LabClient::OnPublish(const std::string& /*topic*/, const std::string& message) {
    Callback("OnPublish", [&] { model.Message(message); });
}

void LabClient::OnConnect() {
    Callback("OnConnect", [&] { model.Connected(); });
}

void LabClient::OnDeliveryCompleted(const std::string& topic) {
    Callback("OnDeliveryCompleted", [&] { model.Completed(topic); });
}

} // namespace OrvLab
