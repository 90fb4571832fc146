// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "torture/Gateway.h"

#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace OrvLab {

/// What an application is put through. It looks after itself: an exception that may not leave a call, and what is
/// wanted in vain, end the process.
class Program {
public:
    virtual ~Program() = default;
    /// What has to be there already.
    virtual void Before() {}
    /// Meanwhile something fails.
    virtual void Tortured() = 0;
    /// Nothing fails any more: everything works, at the latest after an attempt of the application's own.
    virtual void DemandAll() {}
};

/// How a program is called, and what it needs.
struct ProgramKind {
    const char* name;
    Equipment equipment;
    std::unique_ptr<Program> (*make)(Gateway& gateway);
    /// That never fails there: others try it, or an application without any ends and is started anew.
    bool hasMemory = false;
};
const std::vector<ProgramKind>& AllPrograms();
/// Those with which the torture itself is tested.
const std::vector<ProgramKind>& FaultyPrograms();

/// The call may be refused for want of memory, but for nothing else; CreateClient for want of a broker, too.
void Try(const char* name, const std::function<void()>& call);

/// Nothing fails any more: whoever repeats this has in the end no more memory, descriptors, threads and registrations
/// than before.
void DemandNoGrowth(const std::function<void()>& life);

/// Before anything fails: settings that cannot be read are reported, and the defaults are in force for good.
void HaveSettings();

/// @name Each of them
/// @{
std::unique_ptr<Program> ReadSettings(Gateway& gateway);
std::unique_ptr<Program> ReloadLevels(Gateway& gateway);
std::unique_ptr<Program> Speak(Gateway& gateway);
std::unique_ptr<Program> OverrideLevels(Gateway& gateway);
std::unique_ptr<Program> OrderTheWay(Gateway& gateway);
std::unique_ptr<Program> BeginAndInit(Gateway& gateway);
std::unique_ptr<Program> WorkAndLoseTheBroker(Gateway& gateway);
std::unique_ptr<Program> LookForTheCloud(Gateway& gateway);
std::unique_ptr<Program> FailOver(Gateway& gateway);
std::unique_ptr<Program> Leave(Gateway& gateway);
std::unique_ptr<Program> LiveInC(Gateway& gateway);
std::unique_ptr<Program> LiveAgain(Gateway& gateway);
std::unique_ptr<Program> LockTheGateway(Gateway& gateway);
std::unique_ptr<Program> WatchTheCsv(Gateway& gateway);
std::unique_ptr<Program> WriteTheStatus(Gateway& gateway);
std::unique_ptr<Program> CallTheCloud(Gateway& gateway);
std::unique_ptr<Program> ProveAWay(Gateway& gateway);
std::unique_ptr<Program> NotifyTheManager(Gateway& gateway);
std::unique_ptr<Program> AskTheKernel(Gateway& gateway);
std::unique_ptr<Program> KeepRoutes(Gateway& gateway);
/// @}

} // namespace OrvLab
