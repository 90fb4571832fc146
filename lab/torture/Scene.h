// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "torture/SmallBroker.h"

#include "OrvStackSdk/OrvStackSdk.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace OrvLab {

/// An application on a gateway of its own: a broker, settings, a log, a place for the status files. What happens in it
/// is watched: an exception that may not leave a call, and what is wanted in vain, end the process.
class Scene {
public:
    Scene();
    ~Scene();
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    /// @name What an application does, while something may fail
    /// @{
    void Create();
    void Init();
    void Work();
    void Supervise();
    void LoseTheBroker();
    void Settings();
    void Leave();
    /// @}

    /// Nothing fails any more: everything works, at the latest after an attempt of the application's own.
    void DemandAll();

private:
    class Handler;

    void Try(const char* name, const std::function<void()>& call);
    void Ticks(int count);
    void DemandWords();
    void DemandSupervision();
    void Check(const char* what, const std::function<bool()>& condition);

    SmallBroker broker;
    std::string folder;
    std::shared_ptr<Handler> handler;
    std::shared_ptr<OrvStackSdk::IOrvStackClient> client;
    bool supervisionFailed = false;
};

/// What an application is put through: first without, then with failures.
struct Program {
    const char* name;
    void (*before)(Scene& scene);
    void (*tortured)(Scene& scene);
    bool demandsAll = true;    // afterwards
    bool leavesMalloc = false; // alone
};
constexpr std::size_t PROGRAMS = 5;
extern const Program programs[PROGRAMS];

/// Something that must not be has happened.
[[noreturn]] void Fail(const std::string& what);

/// For this process the clock goes on by so much.
void SkipTime(std::chrono::seconds duration);

} // namespace OrvLab
