// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Simulation.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace OrvLab {

/// One thing that the client library has done at its edge, in words: a record, a publication, an order, a step of a
/// transfer, a file, a callback.
struct Effect {
    std::string what;
    std::int64_t result = 0; // what the edge has answered
    std::uint64_t number = 0;
    std::uint64_t answered = 0;
};

/// A call of the application and what the library did in it. Calls that are made in callbacks are calls of their own.
struct Call {
    enum class Kind { CREATE, EVENT, TICK, RECONNECT, OTHER, RELEASE };

    Kind kind = Kind::OTHER;
    std::string name; // of the operation
    std::string text;
    int value = 0;

    std::vector<Effect> effects;
    std::uint64_t begin = 0;
    std::uint64_t end = 0; // 0: under way
    bool answer = false;
    bool threw = false;
    bool filesTroubled = false; // by others or by the disk
    bool handlerThere = false;  // when it began
    bool storesStatus = false;  // at the moment
    std::string path;           // of the cloud connection, after a tick; "?" when it was not looked at
    std::size_t at = 0;         // effects that the model has compared
    Time waited = 0;
    Time limit = 0;
    Time stallTimeBefore = 0;
};

/// Sees what the library does, and lays it at the door of the call in which it is done.
class Witness {
public:
    static Witness* Current();

    explicit Witness(Simulation& simulation);
    ~Witness();
    Witness(const Witness&) = delete;
    Witness& operator=(const Witness&) = delete;

    /// @name For the application
    /// @{
    std::shared_ptr<Call> Begin(Call::Kind kind, const std::string& name, Time limit);
    void End(const std::shared_ptr<Call>& call);
    void BeginCallback(const std::string& what);
    void EndCallback();
    /// @}

    /// @name For the edge
    /// @{
    void Note(const std::string& what, std::int64_t result = 0);
    /// The answer to what this thread has noted last.
    void Answer(const std::string& what, std::int64_t result);
    /// Somebody else meddles with the files, or the disk fails.
    void FilesAreTroubled();
    /// The call that this thread is in; null in none.
    Call* Innermost();
    /// @}

    void Jumped(Time by);
    std::uint64_t Now() const { return number; }
    bool AnybodyInside() const { return !living.empty(); }
    Simulation& sim;

    /// @name Who is told
    /// @{
    std::function<void(Call& call, const Effect& effect)> onEffect;
    std::function<void(const std::shared_ptr<Call>& call)> onEnd;
    std::function<void(const Effect& effect)> onDelivery; // outside of all calls
    /// @}

private:
    struct Level {
        std::shared_ptr<Call> call; // null: a callback
    };

    std::vector<Level>& Stack();

    std::map<const Simulation::Thread*, std::vector<Level>> stacks;
    std::set<Call*> living;
    std::uint64_t number = 0;
};

} // namespace OrvLab
