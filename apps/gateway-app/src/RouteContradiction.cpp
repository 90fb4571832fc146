// SPDX-License-Identifier: Apache-2.0
#include "RouteContradiction.h"

namespace GatewayApp {

using namespace std::chrono_literals;

namespace {

// The default route follows the order within half a second, and a move of the supervision takes three at most.
constexpr auto LASTING = 5s;
// Until the connection manager has shown the changed order; it takes a few tenths.
constexpr auto CHANGE = 2s;

} // namespace

RouteContradiction::Step RouteContradiction::Observe(const std::string& kernel, const std::string& top, Time now) {
    const bool changed = kernel != lastKernel || top != lastTop;
    lastKernel = kernel;
    lastTop = top;
    if (state == State::CHANGED) {
        if (top == wanted && now - since < CHANGE)
            return Step::NONE;
        Enter(State::RESTORED, now);
        return Step::RESTORE_ORDER;
    }
    const bool differs = !kernel.empty() && !top.empty() && kernel != top;
    if (!differs) {
        if (state == State::RESTORED && top != wanted)
            return Step::NONE; // the order is still on its way back
        Enter(State::WATCHING, now);
        contradicts = false;
        return Step::NONE;
    }
    if (!contradicts || (changed && state == State::WATCHING))
        since = now;
    contradicts = true;
    if (now - since < LASTING)
        return Step::NONE;
    if (state == State::WATCHING) {
        wanted = top;
        Enter(State::CHANGED, now);
        return Step::CHANGE_ORDER;
    }
    if (state == State::RESTORED) {
        Enter(State::GIVEN_UP, now);
        return Step::GIVE_UP;
    }
    return Step::NONE;
}

bool RouteContradiction::LibraryHasMoved(Time now) {
    const bool underWay = state == State::CHANGED || state == State::RESTORED;
    Enter(State::WATCHING, now);
    contradicts = false;
    return underWay;
}

void RouteContradiction::Enter(State next, Time now) {
    state = next;
    since = now;
}

} // namespace GatewayApp
