// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "gateway/Agenda.h"
#include "sim/Descriptors.h"
#include "sim/Random.h"
#include "sim/Simulation.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace OrvLab {

/// What the broker in the cloud says.
enum class Said { HELLO, ALERT, ACCEPTED, REFUSED, PONG, END };

/// The client's end of a TCP connection to the cloud.
class CloudSocket final : public OpenFile {
public:
    /// What is going to happen to it.
    struct Fate {
        enum class Tcp { ACCEPTS, REFUSES, MUTE } tcp = Tcp::ACCEPTS;
        enum class Tls { GOOD, ALERT, MUTE, END } tls = Tls::GOOD;
        enum class Answer { ACCEPTED, REFUSED, MUTE, END } answer = Answer::ACCEPTED;
        Time pace = 0; // of each answer
    };

    CloudSocket(Simulation& simulation, Agenda& its, std::string to, const Fate& drawn)
        : address(std::move(to)), fate(drawn), begun(simulation.Now()), sim(simulation), agenda(its), lastSign(begun) {}

    short Ready() const override;
    long Receive(void* buffer, std::size_t size) override;

    /// @name The client's side
    /// @{
    bool Take(Said& said);
    void Ask(Said answer);
    int TakeError();
    void SetOption(int option, int value);
    int Option(int option) const;
    /// How long ago the other machine last gave a sign of life.
    Time SilentFor();
    /// @}

    /// @name The other side
    /// @{
    void Accept();
    void Break(int why);
    void Say(Said what);
    void FallSilent(Time until);
    /// The way is there again.
    void Revive();
    /// @}

    const std::string address;
    const Fate fate;
    const Time begun;
    std::string source; // the own address
    bool connected = false;
    bool closed = false;  // by the client
    bool greeted = false; // TLS has begun
    bool secure = false;  // and is complete
    bool hangs = false;   // the broker; its machine answers
    bool lost = false;    // its way
    int error = 0;
    bool broken = false;
    Time brokenAt = NEVER;
    Time silentFrom = NEVER;
    Time silentUntil = 0;

private:
    bool IsSilent(Time now) const { return now >= silentFrom && now < silentUntil; }
    void GiveUpWhenSilent(const std::weak_ptr<CloudSocket>& self);
    friend class ScriptedCloud;

    Simulation& sim;
    Agenda& agenda;
    std::weak_ptr<CloudSocket> own;
    std::deque<Said> inbox;
    std::map<int, int> options;
    Time lastSign;
};

/// The cloud's brokers, one for each address, and the way to them.
class ScriptedCloud {
public:
    ScriptedCloud(Simulation& simulation, Agenda& its, std::uint64_t seed)
        : sim(simulation), agenda(its), random(seed) {}

    /// @return null with errno set when there is no way
    std::shared_ptr<CloudSocket> Connect(const std::string& address);
    /// From now on everybody answers quickly.
    void Heal();
    bool IsWell() const { return well; }
    /// Something happens to a connection that stands.
    void Trouble();
    /// No way to the addresses of one family, or one again.
    void SetWay(bool six, bool there);
    /// The own address towards that one; empty when there is no way.
    std::string SourceTowards(const std::string& address) const;
    /// Those that the client has not closed.
    std::vector<std::shared_ptr<CloudSocket>> Open() const;
    static bool IsSix(const std::string& address) { return address.find(':') != std::string::npos; }
    int Tried() const { return tried; }
    std::uint64_t Ways() const { return waysChanged; }
    void SetShareOfTrouble(unsigned share) { shareOfTrouble = share; }

    /// @name Where the way depends on the kernel's network
    /// @{
    /// The own address towards a family; empty when there is no way.
    std::function<std::string(bool six)> sourceOf;
    /// Whether nothing that leaves from this address arrives.
    std::function<bool(const std::string& source)> isDead;
    /// A connection that was made from that address, of nobody's who is listed here.
    std::shared_ptr<CloudSocket> Reach(const std::string& source);
    /// Whatever connections have lost their way, or found it again, since the last call.
    void Follow();
    /// @}

private:
    Simulation& sim;
    Agenda& agenda;
    Random random;
    bool well = false;
    unsigned shareOfTrouble = 2; // of 8 connections, how many meet trouble
    bool way[2] = {true, true};
    std::uint64_t waysChanged = 0;
    int tried = 0;
    std::vector<std::shared_ptr<CloudSocket>> sockets;
    std::vector<std::weak_ptr<CloudSocket>> others;
};

} // namespace OrvLab
