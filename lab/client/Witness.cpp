// SPDX-License-Identifier: Apache-2.0
#include "client/Witness.h"

#include <utility>

namespace OrvLab {

namespace {

Witness* current = nullptr;

} // namespace

Witness* Witness::Current() {
    return current;
}

Witness::Witness(Simulation& simulation) : sim(simulation) {
    current = this;
}

Witness::~Witness() {
    current = nullptr;
}

std::vector<Witness::Level>& Witness::Stack() {
    return stacks[&sim.Self()];
}

std::shared_ptr<Call> Witness::Begin(Call::Kind kind, const std::string& name, Time limit) {
    auto call = std::make_shared<Call>();
    call->kind = kind;
    call->name = name;
    call->limit = limit;
    call->begin = ++number;
    call->path = "?";
    call->stallTimeBefore = sim.StallTimeSoFar();
    Stack().push_back({call});
    living.insert(call.get());
    sim.Trace("  " + sim.Self().name + " calls " + name);
    return call;
}

void Witness::End(const std::shared_ptr<Call>& call) {
    call->end = ++number;
    if (Stack().empty() || Stack().back().call != call)
        sim.Fail(call->name + " returns in the wrong place");
    Stack().pop_back();
    living.erase(call.get());
    sim.Trace("  " + sim.Self().name + " comes back from " + call->name);
    if (call->waited > call->limit + sim.StallTime() - call->stallTimeBefore)
        sim.Fail(call->name + " has waited for " + std::to_string(static_cast<double>(call->waited) / SECOND) + " s");
    if (onEnd)
        onEnd(call);
}

void Witness::BeginCallback(const std::string& what) {
    if (sim.Self().locks != 0)
        sim.Fail("a lock is held in a callback: " + what);
    Note("called " + what);
    Stack().push_back({nullptr});
}

void Witness::EndCallback() {
    Stack().pop_back();
}

void Witness::Note(const std::string& what, std::int64_t result) {
    Effect effect{what, result, ++number, 0};
    sim.Trace("    " + what + (result != 0 ? " -> " + std::to_string(result) : ""));
    Call* call = Innermost();
    if (call == nullptr) {
        if (onDelivery)
            onDelivery(effect);
        return;
    }
    call->effects.push_back(effect);
    if (onEffect)
        onEffect(*call, effect);
}

void Witness::Answer(const std::string& what, std::int64_t result) {
    Call* call = Innermost();
    if (call == nullptr)
        return;
    for (auto effect = call->effects.rbegin(); effect != call->effects.rend(); ++effect) {
        if (effect->what != what)
            continue;
        effect->result = result;
        effect->answered = ++number;
        return;
    }
}

void Witness::FilesAreTroubled() {
    for (Call* call : living)
        call->filesTroubled = true;
}

Call* Witness::Innermost() {
    auto& stack = Stack();
    return stack.empty() ? nullptr : stack.back().call.get();
}

// What waits in a callback is the application's own doing.
void Witness::Jumped(Time by) {
    for (const auto& [thread, stack] : stacks)
        if (!stack.empty() && stack.back().call)
            stack.back().call->waited += by;
}

} // namespace OrvLab
