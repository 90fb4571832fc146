// SPDX-License-Identifier: Apache-2.0
#include "broker/LinkStateMachine.h"

namespace OrvPlatform {

void LinkStateMachine::Prepare() {
    refusal = refusalReported = 0;
}

void LinkStateMachine::ConnectBegun(Time deadline) {
    attemptEnds = deadline;
    state = State::CONNECTING;
}

LinkStateMachine::Answer LinkStateMachine::Answered(int code, Time now) {
    if (state == State::UP)
        return Answer::IGNORED;
    refusal = code;
    if (code != 0)
        return Answer::REFUSED;
    restorePending = state != State::CONNECTING;
    evictions.Accepted(now, attempt);
    if (!evictions.Suspects())
        backoff.Reset();
    state = State::UP;
    return restorePending ? Answer::RECONNECTED : Answer::CONNECTED;
}

LinkStateMachine::Loss LinkStateMachine::Lost(Time now, bool likeEviction) {
    switch (state) {
    case State::CONNECTING:
        state = State::CLOSED;
        return Loss::CONNECT_FAILED;
    case State::UP:
        evictions.Lost(now, likeEviction);
        lostAt = now;
        attempt = 0;
        Pause(now);
        return Loss::CONNECTION_LOST;
    case State::RECONNECTING:
        Pause(now);
        return Loss::ATTEMPT_FAILED;
    case State::PAUSING:
    case State::CLOSED:
        break;
    }
    return Loss::IGNORED;
}

void LinkStateMachine::AttemptFailed(Time now) {
    Pause(now);
}

LinkStateMachine::Due LinkStateMachine::Advance(Time now) {
    if (state == State::UP && now - maintained >= MAINTENANCE_INTERVAL) {
        maintained = now;
        return Due::MAINTENANCE;
    }
    if (state == State::RECONNECTING && now >= attemptEnds) {
        Pause(now);
        return Due::ATTEMPT_TIMED_OUT;
    }
    if (state == State::PAUSING && now >= pauseEnds) {
        ++attempt;
        refusal = 0;
        attemptEnds = now + RECONNECT_LIMIT;
        state = State::RECONNECTING;
        return Due::RECONNECT;
    }
    return Due::NOTHING;
}

LinkStateMachine::Time LinkStateMachine::NextDue(Time now) const {
    switch (state) {
    case State::UP:
        return now + MAINTENANCE_INTERVAL;
    case State::PAUSING:
        return pauseEnds;
    case State::CONNECTING:
    case State::RECONNECTING:
        return attemptEnds;
    case State::CLOSED:
        break;
    }
    return {};
}

void LinkStateMachine::BeginRestore() {
    restorePending = false;
    refusalReported = 0;
}

bool LinkStateMachine::TakeNewRefusal() {
    const bool isNew = refusal != refusalReported && refusal != 0;
    refusalReported = refusal;
    return isNew;
}

LinkStateMachine::LossReport LinkStateMachine::ReportOfLoss() {
    if (!evictions.Suspects()) {
        evictionReported = false;
        return LossReport::LOSS;
    }
    return evictionReported ? LossReport::NONE : LossReport::EVICTION;
}

void LinkStateMachine::Pause(Time now) {
    pauseEnds = now + backoff.Next();
    state = State::PAUSING;
}

} // namespace OrvPlatform
