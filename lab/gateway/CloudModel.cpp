// SPDX-License-Identifier: Apache-2.0
#include "gateway/CloudModel.h"

#include <algorithm>

namespace OrvLab {

namespace {

constexpr Time ATTEMPT = 5 * SECOND;
constexpr Time FIRST_DELAY = SECOND / 2;
constexpr Time LONGEST_DELAY = 10 * SECOND;
constexpr Time LASTING = 10 * SECOND;
constexpr Time LONGEST_FIRST = 2 * SECOND;
constexpr Time STAGGER = 250 * MILLISECOND;
constexpr Time SLOW_HANDSHAKE = 1500 * MILLISECOND;
constexpr int MOST_LOOK_UPS = 4;
constexpr Time SLACK = 20 * MILLISECOND; // for the paces of the clock, and times in whole milliseconds

} // namespace

CloudModel::CloudModel(World& its) : world(its) {
    world.onDial = [this](const std::string& address) { Dials(address); };
    world.onHello = [this](CloudSocket& socket) { Greets(socket); };
    world.onUndone = [this] { undoneAt = world.sim.Now(); };
    world.resolver.onEnd = [this] { NoteLookUps(); };
    world.onConnect = [this](CloudSocket& socket) { Introduces(socket); };
}

void CloudModel::Fail(const std::string& what) {
    world.sim.Fail("cloud connection: " + what);
}

void CloudModel::Enter(Phase next) {
    phase = next;
    since = world.sim.Now();
    stalled = world.sim.StallTimeSoFar();
}

Time CloudModel::Allowance() const {
    return SLACK + world.sim.StallTime() - stalled;
}

void CloudModel::BeginAttempt() {
    Enter(Phase::ATTEMPT);
    asked = refused = false;
    dials.clear();
    greetings.clear();
    introductions = 0;
    standing.reset();
    ways = world.cloud.Ways();
    NoteLookUps();
}

void CloudModel::Opens(bool hasHost) {
    owesLoss = phase == Phase::CONNECTED;
    fullDelay = FIRST_DELAY;
    if (hasHost)
        BeginAttempt();
    else
        Enter(Phase::CLOSED);
}

void CloudModel::Closes() {
    owesLoss = phase == Phase::CONNECTED;
    Enter(Phase::CLOSED);
}

void CloudModel::CameBack() {
    if (owesLoss)
        Fail("its end is not told");
    CheckOpen();
}

void CloudModel::Connected(const std::string& source) {
    const auto socket = standing;
    if (phase != Phase::ATTEMPT)
        Fail("is connected, and nobody wants that");
    if (!socket || introductions != 1)
        Fail("is connected, and no broker has said so");
    if (source != socket->source)
        Fail("tells " + source + " for its own address, which is " + socket->source);
    Enter(Phase::CONNECTED);
    CheckOpen();
}

void CloudModel::Lost() {
    if (owesLoss) {
        owesLoss = false;
        return;
    }
    if (phase != Phase::CONNECTED)
        Fail("is lost without having been there");
    CheckLoss();
    const bool lasting = world.sim.Now() - since >= LASTING;
    const bool nearly = world.sim.Now() - since >= LASTING - Allowance();
    const Time full = fullDelay;
    Enter(Phase::WAITING);
    // Just before the limit, the clock that it read and this one may differ.
    leastDelay = lasting || nearly ? 0 : full / 2;
    mostDelay = lasting ? LONGEST_FIRST : nearly ? std::max(full, LONGEST_FIRST) : full;
    fullDelay = lasting ? FIRST_DELAY : std::min(2 * full, LONGEST_DELAY);
    CheckOpen();
}

void CloudModel::CheckLoss() {
    const auto socket = standing;
    const bool healthy = socket && !socket->broken && socket->brokenAt == NEVER && !socket->hangs;
    const bool wasSilent = socket && socket->silentFrom != NEVER &&
                           std::min(world.sim.Now(), socket->silentUntil) - socket->silentFrom > SECOND;
    if (healthy && !wasSilent)
        Fail("gives up a connection that is good");
}

void CloudModel::Failed(std::chrono::milliseconds delay) {
    const Time told = std::chrono::nanoseconds(delay).count();
    const Time begun = phase == Phase::WAITING ? since + leastDelay : since;
    const Time allowed = Allowance();
    if (phase == Phase::WAITING) { // an attempt of which nothing has been seen
        CheckDelay(leastDelay, mostDelay);
        BeginAttempt();
    }
    if (phase != Phase::ATTEMPT)
        Fail("an attempt fails, and there is none");
    if (!asked && lookUps() < MOST_LOOK_UPS && fullAt < begun - allowed)
        Fail("an attempt fails, and the name servers have not been asked");
    if (told > fullDelay + MILLISECOND || told < fullDelay / 2 - MILLISECOND)
        Fail("waits " + std::to_string(delay.count()) + " ms before the next attempt, and not about " +
             std::to_string(fullDelay / MILLISECOND));
    fullDelay = std::min(2 * fullDelay, LONGEST_DELAY);
    Enter(Phase::WAITING);
    leastDelay = mostDelay = told;
    CheckOpen();
}

void CloudModel::CheckDelay(Time least, Time most) {
    const Time waited = world.sim.Now() - since;
    if (waited < least - MILLISECOND)
        Fail("tries again after " + std::to_string(waited / MILLISECOND) + " ms, too soon");
    if (waited > most + Allowance())
        Fail("tries again after " + std::to_string(waited / MILLISECOND) + " ms, too late");
}

void CloudModel::AskedForKeepAlive(std::chrono::seconds period) {
    const Time now = std::chrono::nanoseconds(period).count();
    if (now != keepAlive)
        keepAliveSince = world.sim.Now();
    keepAlive = now;
}

void CloudModel::LookUpBegins() {
    if (phase == Phase::WAITING) {
        CheckDelay(leastDelay, mostDelay);
        BeginAttempt();
    }
    if (phase != Phase::ATTEMPT)
        Fail("looks for the cloud, and nobody wants that");
    if (asked)
        Fail("asks the name servers twice in one attempt");
    asked = true;
}

void CloudModel::LookUpRefused() {
    LookUpBegins();
    refused = true;
}

/// Looked at wherever one may end unseen.
void CloudModel::NoteLookUps() {
    if (lookUps() >= MOST_LOOK_UPS)
        fullAt = world.sim.Now();
}

void CloudModel::Dials(const std::string& address) {
    if (phase != Phase::ATTEMPT)
        Fail("connects to " + address + ", and no attempt is under way");
    for (const Dial& earlier : dials)
        if (earlier.address == address)
            Fail("connects to " + address + " twice in one attempt");
    const Time now = world.sim.Now();
    if (!dials.empty() && now - dials.back().at < STAGGER - Allowance() && undoneAt < dials.back().at)
        Fail("goes on to the next address before 250 ms, and none has failed");
    const std::vector<std::string>& others = world.resolver.Addresses();
    const auto isBetter = [this](const std::string& other) {
        const std::string source = world.cloud.SourceTowards(other);
        return !source.empty() && !isDetour(source);
    };
    if (isDetour && ways == world.cloud.Ways() && isDetour(world.cloud.SourceTowards(address)) &&
        std::any_of(others.begin(), others.end(), isBetter))
        Fail("goes to " + address + " by a detour, and there is another way");
    dials.push_back({address, now});
}

void CloudModel::Greets(CloudSocket& /*socket*/) {
    const Time now = world.sim.Now();
    if (phase != Phase::ATTEMPT)
        Fail("begins TLS, and no attempt is under way");
    greetings.push_back(now);
    // One at a time, another one for each 1.5 s that it takes.
    int driven = 0;
    for (const auto& open : world.cloud.Open())
        driven += open->begun >= since && open->greeted && !open->broken && open->brokenAt == NEVER ? 1 : 0;
    const Time first = greetings.front();
    if (driven > 1 + static_cast<int>((now - first + Allowance()) / SLOW_HANDSHAKE))
        Fail("drives too many handshakes at a time");
}

void CloudModel::Introduces(CloudSocket& socket) {
    if (phase != Phase::ATTEMPT)
        Fail("sends CONNECT, and no attempt is under way");
    if (++introductions > 1)
        Fail("sends CONNECT twice in one attempt");
    for (const auto& open : world.cloud.Open())
        if (open.get() == &socket)
            standing = open;
}

void CloudModel::TimeHasAdvanced() {
    NoteLookUps();
    const Time now = world.sim.Now();
    if (phase == Phase::ATTEMPT && now - since > ATTEMPT + Allowance())
        Fail("an attempt does not end within 5 s");
    if (phase == Phase::WAITING && now - since > mostDelay + Allowance())
        Fail("does not try again");
    CheckOpen();
    if (phase == Phase::ATTEMPT)
        CheckGoingOn();
    if (phase != Phase::CONNECTED)
        return;
    const auto socket = standing;
    const Time stalls = Allowance();
    if (!socket || (socket->brokenAt != NEVER && now - socket->brokenAt > stalls))
        Fail("does not notice that its connection has ended");
    if (socket->silentFrom == NEVER || now >= socket->silentUntil)
        return;
    // Signs of life were asked for all the time until then; see KeepAlive.
    const Time limit = keepAlive + 2 * std::min(keepAlive, 5 * SECOND);
    const Time from = std::max({socket->silentFrom, keepAliveSince, since});
    if (now - from > limit + SECOND / 2 + stalls)
        Fail("does not notice that its path is silent");
}

/// While nobody answers, the next address gets its turn in time.
void CloudModel::CheckGoingOn() {
    const std::vector<std::string>& all = world.resolver.Addresses();
    const auto isDetourNow = [this](const std::string& one) {
        return isDetour && isDetour(world.cloud.SourceTowards(one));
    };
    if (dials.empty() || dials.size() >= all.size() || std::any_of(all.begin(), all.end(), isDetourNow) ||
        ways != world.cloud.Ways())
        return;
    const auto open = world.cloud.Open();
    if (std::any_of(open.begin(), open.end(), [](const auto& one) { return one->secure; }))
        return;
    const Time now = world.sim.Now();
    const Time patience = now - Allowance();
    const Time slow = IsDriving() ? greetings.back() + SLOW_HANDSHAKE : 0;
    if (patience - std::max(slow, dials.back().at) > STAGGER)
        Fail("does not go on to the next address");
}

bool CloudModel::IsDriving() const {
    const auto open = world.cloud.Open();
    return std::any_of(open.begin(), open.end(), [](const auto& one) { return one->greeted; });
}

void CloudModel::CheckOpen() {
    const std::size_t open = world.cloud.Open().size();
    const bool none = phase == Phase::CLOSED || phase == Phase::WAITING;
    if (none && (open != 0 || world.clients != 0))
        Fail("keeps a connection that it does not use");
    if (phase == Phase::CONNECTED && world.clients != 1)
        Fail("keeps other connections beside the one that has won");
}

} // namespace OrvLab
