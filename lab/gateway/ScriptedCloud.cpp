// SPDX-License-Identifier: Apache-2.0
#include "gateway/ScriptedCloud.h"

#include <netinet/tcp.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>

namespace OrvLab {

short CloudSocket::Ready() const {
    if (broken)
        return POLLIN | POLLOUT | POLLERR | POLLHUP;
    if (!connected)
        return 0;
    return static_cast<short>(POLLOUT | (inbox.empty() ? 0 : POLLIN));
}

long CloudSocket::Receive(void* /*buffer*/, std::size_t /*size*/) {
    errno = EAGAIN;
    return -1;
}

bool CloudSocket::Take(Said& said) {
    if (inbox.empty())
        return false;
    said = inbox.front();
    inbox.pop_front();
    return true;
}

void CloudSocket::Ask(Said answer) {
    const bool silent = IsSilent(sim.Now());
    if ((silent && silentUntil == NEVER) || (hangs && answer == Said::PONG))
        return;
    agenda.At((silent ? silentUntil : sim.Now()) + fate.pace, [self = own, answer] {
        if (const auto socket = self.lock())
            socket->Say(answer);
    });
}

int CloudSocket::TakeError() {
    return std::exchange(error, 0);
}

void CloudSocket::SetOption(int option, int value) {
    options[option] = value;
    const Time now = sim.Now();
    if (option == TCP_KEEPIDLE && connected && !broken && !IsSilent(now) &&
        now - lastSign >= static_cast<Time>(value) * SECOND)
        lastSign = now; // asked at once, answered at once
}

int CloudSocket::Option(int option) const {
    const auto found = options.find(option);
    return found == options.end() ? 7200 : found->second;
}

Time CloudSocket::SilentFor() {
    const Time now = sim.Now();
    const Time period = static_cast<Time>(Option(TCP_KEEPIDLE)) * SECOND;
    const bool over = now >= silentUntil;
    if (over && silentFrom != NEVER)
        lastSign = std::max(lastSign, silentUntil); // what was asked meanwhile is answered
    const Time heard = over ? now : std::min(now, silentFrom);
    if (heard - lastSign >= period)
        lastSign += (heard - lastSign) / period * period;
    return now - lastSign;
}

void CloudSocket::Accept() {
    if (broken || connected)
        return;
    connected = true;
    lastSign = sim.Now();
    sim.Trace("    cloud: accepts from " + address);
}

void CloudSocket::Break(int why) {
    if (broken)
        return;
    sim.Trace("    cloud: the connection to " + address + " breaks");
    broken = true;
    brokenAt = sim.Now();
    error = why;
}

void CloudSocket::Say(Said what) {
    const Time now = sim.Now();
    if (broken)
        return;
    if (IsSilent(now)) {
        if (silentUntil != NEVER)
            agenda.At(silentUntil, [self = own, what] {
                if (const auto socket = self.lock())
                    socket->Say(what);
            });
        return;
    }
    if (what == Said::END)
        brokenAt = std::min(brokenAt, now);
    lastSign = now;
    inbox.push_back(what);
}

void CloudSocket::FallSilent(Time until) {
    if (IsSilent(sim.Now()))
        return;
    SilentFor();
    silentFrom = sim.Now();
    silentUntil = until;
    sim.Trace("    cloud: nothing comes from " + address + (until == NEVER ? "" : " for a while"));
    GiveUpWhenSilent(own);
}

void CloudSocket::Revive() {
    if (IsSilent(sim.Now()))
        silentUntil = sim.Now();
}

/// The kernel does by itself.
void CloudSocket::GiveUpWhenSilent(const std::weak_ptr<CloudSocket>& self) {
    agenda.At(sim.Now() + SECOND / 2, [self] {
        const auto socket = self.lock();
        if (!socket || socket->broken || !socket->IsSilent(socket->sim.Now()))
            return;
        const Time limit = static_cast<Time>(socket->Option(TCP_USER_TIMEOUT)) * MILLISECOND;
        if (socket->SilentFor() > limit)
            return socket->Break(ETIMEDOUT);
        socket->GiveUpWhenSilent(self);
    });
}

std::shared_ptr<CloudSocket> ScriptedCloud::Connect(const std::string& address) {
    ++tried;
    const std::string source = SourceTowards(address);
    if (source.empty()) {
        errno = ENETUNREACH;
        return nullptr;
    }
    CloudSocket::Fate fate;
    fate.pace = well ? 20 * MILLISECOND : static_cast<Time>(random.Below(random.OneIn(4) ? 2500 : 120)) * MILLISECOND;
    if (!well && random.Below(8) < shareOfTrouble) {
        using Fate = CloudSocket::Fate;
        switch (random.Below(3)) {
        case 0:
            fate.tcp = static_cast<Fate::Tcp>(1 + random.Below(2));
            break;
        case 1:
            fate.tls = static_cast<Fate::Tls>(1 + random.Below(3));
            break;
        default:
            fate.answer = static_cast<Fate::Answer>(1 + random.Below(3));
            break;
        }
    }
    if (isDead && isDead(source))
        fate.tcp = CloudSocket::Fate::Tcp::MUTE;
    auto socket = std::make_shared<CloudSocket>(sim, agenda, address, fate);
    socket->own = socket;
    socket->source = source;
    sockets.erase(std::remove_if(sockets.begin(), sockets.end(), [](const auto& one) { return one->closed; }),
                  sockets.end());
    sockets.push_back(socket);
    if (fate.tcp != CloudSocket::Fate::Tcp::MUTE)
        agenda.At(sim.Now() + fate.pace, [self = socket->own, accepts = fate.tcp == CloudSocket::Fate::Tcp::ACCEPTS] {
            const auto met = self.lock();
            if (met && accepts)
                met->Accept();
            else if (met)
                met->Break(ECONNREFUSED);
        });
    return socket;
}

std::vector<std::shared_ptr<CloudSocket>> ScriptedCloud::Open() const {
    std::vector<std::shared_ptr<CloudSocket>> open;
    for (const auto& one : sockets)
        if (!one->closed)
            open.push_back(one);
    return open;
}

void ScriptedCloud::Heal() {
    well = true;
    way[0] = way[1] = true;
    ++waysChanged;
    // One that hangs is started anew: it would be noticed by the protocol's own ping only, after minutes.
    for (const auto& socket : Open())
        if (socket->hangs)
            socket->Break(ECONNRESET);
}

void ScriptedCloud::SetWay(bool six, bool there) {
    way[six ? 1 : 0] = there;
    ++waysChanged;
}

std::string ScriptedCloud::SourceTowards(const std::string& address) const {
    const bool six = IsSix(address);
    if (!way[six ? 1 : 0])
        return {};
    if (sourceOf)
        return sourceOf(six);
    return six ? "2001:db8:1::10" : "192.0.2.10";
}

std::shared_ptr<CloudSocket> ScriptedCloud::Reach(const std::string& source) {
    auto socket = std::make_shared<CloudSocket>(sim, agenda, "the cloud", CloudSocket::Fate{});
    socket->own = socket;
    socket->source = source;
    socket->Accept();
    others.push_back(socket);
    return socket;
}

void ScriptedCloud::Follow() {
    std::vector<std::shared_ptr<CloudSocket>> all = Open();
    for (const auto& one : others)
        if (auto socket = one.lock())
            all.push_back(std::move(socket));
    for (const auto& socket : all) {
        const bool now = isDead(socket->source);
        if (now && !socket->lost)
            socket->FallSilent(NEVER);
        else if (!now && socket->lost)
            socket->Revive();
        socket->lost = now;
    }
}

void ScriptedCloud::Trouble() {
    const auto open = Open();
    if (open.empty())
        return;
    CloudSocket& one = *open[random.Below(static_cast<unsigned>(open.size()))];
    switch (random.Below(6)) {
    case 0:
        one.Break(ECONNRESET);
        break;
    case 1:
        one.Say(Said::END);
        break;
    case 2:
    case 3:
        one.FallSilent(NEVER);
        break;
    case 4:
        one.FallSilent(sim.Now() + static_cast<Time>(random.Between(50, 1200)) * MILLISECOND);
        break;
    default:
        one.hangs = true;
        break;
    }
}

} // namespace OrvLab
