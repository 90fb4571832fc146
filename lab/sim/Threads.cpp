// SPDX-License-Identifier: Apache-2.0
// What the C++ and C libraries offer for threads and time, by the simulation; outside of one, by the libraries.
#include "sim/Simulation.h"

#include <dirent.h>
#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

namespace OrvLab {

namespace {

// In the place where the system keeps the same. A mutex of zeros is free.
int& Holder(pthread_mutex_t* mutex) {
    return mutex->__data.__owner;
}

bool IsRecursive(const pthread_mutex_t* mutex) {
    return mutex->__data.__kind == PTHREAD_MUTEX_RECURSIVE_NP;
}

void Lock(Simulation& simulation, pthread_mutex_t* mutex) {
    simulation.Step("lock");
    int& holder = Holder(mutex);
    if (holder == simulation.Self().number) {
        if (!IsRecursive(mutex))
            simulation.Fail("locks what it has locked already");
        ++mutex->__data.__count;
        return;
    }
    if (holder != 0)
        simulation.Wait("lock", [&] { return holder == 0; });
    holder = simulation.Self().number;
    Races::Acquire(mutex);
    ++simulation.Self().locks;
    simulation.Self().recursiveLocks += IsRecursive(mutex) ? 1 : 0;
}

void Release(Simulation& simulation, pthread_mutex_t* mutex) {
    if (Holder(mutex) != simulation.Self().number)
        simulation.Fail("unlocks what it has not locked");
    if (IsRecursive(mutex) && mutex->__data.__count > 0) {
        --mutex->__data.__count;
        return;
    }
    Races::Release(mutex);
    Holder(mutex) = 0;
    --simulation.Self().locks;
    simulation.Self().recursiveLocks -= IsRecursive(mutex) ? 1 : 0;
}

/// @return false when the time was over
bool Wait(Simulation& simulation, const void* condition, pthread_mutex_t* mutex, Time deadline) {
    if (simulation.Self().locks != 1)
        simulation.Fail("waits for a condition and holds another lock");
    Simulation::Thread& self = simulation.Self();
    self.condition = condition;
    Release(simulation, mutex);
    const bool spurious = simulation.HasSpuriousWakeUps() && simulation.OneInSchedule(20);
    if (spurious)
        simulation.Step("wait, woken for nothing");
    else
        simulation.Wait(
            "wait for a condition", [&] { return self.condition == nullptr; }, deadline);
    const bool inTime = self.condition == nullptr || spurious;
    self.condition = nullptr;
    Lock(simulation, mutex);
    return inTime;
}

Time ToTime(const timespec& time) {
    return static_cast<Time>(time.tv_sec) * SECOND + time.tv_nsec;
}

std::thread::id& IdOf(std::thread* thread) {
    return *reinterpret_cast<std::thread::id*>(thread);
}

Simulation::Thread& ThreadOf(Simulation& simulation, std::thread* thread) {
    Simulation::Thread* found = simulation.Find(static_cast<int>(thread->native_handle()));
    if (found == nullptr)
        simulation.Fail("joins or detaches a thread that is none");
    return *found;
}

} // namespace

} // namespace OrvLab

using OrvLab::Simulation;

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier)
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __real_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline);
pthread_t __real_pthread_self();
int __real_pthread_setname_np(pthread_t thread, const char* name);
DIR* __real_opendir(const char* name);
std::int64_t __real__ZNSt6chrono3_V212steady_clock3nowEv();
unsigned __real__ZNSt13random_device9_M_getvalEv(void* self);
void __real__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE(std::condition_variable* self,
                                                                      std::unique_lock<std::mutex>& lock);
void __real__ZNSt18condition_variable10notify_allEv(std::condition_variable* self);
void __real__ZNSt18condition_variable10notify_oneEv(std::condition_variable* self);
using ThreadState = std::unique_ptr<std::thread::_State>;
void __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(std::thread* self,
                                                                                                  ThreadState* state,
                                                                                                  void (*depend)());
void __real__ZNSt6thread4joinEv(std::thread* self);
void __real__ZNSt6thread6detachEv(std::thread* self);

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    const OrvLab::Unwatched unwatched;
    Simulation* simulation = Simulation::Current();
    if (simulation == nullptr)
        return __real_pthread_mutex_lock(mutex);
    OrvLab::Lock(*simulation, mutex);
    return 0;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    const OrvLab::Unwatched unwatched;
    Simulation* simulation = Simulation::Current();
    if (simulation == nullptr)
        return __real_pthread_mutex_unlock(mutex);
    OrvLab::Release(*simulation, mutex);
    simulation->Step("unlocked");
    return 0;
}

int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline) {
    const OrvLab::Unwatched unwatched;
    Simulation* simulation = Simulation::Current();
    if (simulation == nullptr)
        return __real_pthread_cond_clockwait(condition, mutex, clock, deadline);
    return OrvLab::Wait(*simulation, condition, mutex, OrvLab::ToTime(*deadline)) ? 0 : ETIMEDOUT;
}

pthread_t __wrap_pthread_self() {
    const OrvLab::Unwatched unwatched;
    Simulation* simulation = Simulation::Current();
    return simulation != nullptr ? static_cast<pthread_t>(simulation->Self().number) : __real_pthread_self();
}

int __wrap_pthread_setname_np(pthread_t thread, const char* name) {
    const OrvLab::Unwatched unwatched;
    return Simulation::Current() != nullptr ? 0 : __real_pthread_setname_np(thread, name);
}

// The search for the pair of sockets that a client makes for itself finds none.
DIR* __wrap_opendir(const char* name) {
    const OrvLab::Unwatched unwatched;
    return Simulation::Current() != nullptr ? nullptr : __real_opendir(name);
}

std::int64_t __wrap__ZNSt6chrono3_V212steady_clock3nowEv() {
    const OrvLab::Unwatched unwatched;
    Simulation* simulation = Simulation::Current();
    if (simulation == nullptr)
        return __real__ZNSt6chrono3_V212steady_clock3nowEv();
    simulation->Step("read the clock");
    return simulation->Now();
}

unsigned __wrap__ZNSt13random_device9_M_getvalEv(void* self) {
    const OrvLab::Unwatched unwatched;
    Simulation* simulation = Simulation::Current();
    return simulation != nullptr ? static_cast<unsigned>(simulation->AnyNumber())
                                 : __real__ZNSt13random_device9_M_getvalEv(self);
}

void __wrap__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE(std::condition_variable* self,
                                                                      std::unique_lock<std::mutex>& lock) {
    const OrvLab::Unwatched unwatched;
    Simulation* simulation = Simulation::Current();
    if (simulation == nullptr)
        __real__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE(self, lock);
    else
        OrvLab::Wait(*simulation, self, lock.mutex()->native_handle(), OrvLab::NEVER);
}

void __wrap__ZNSt18condition_variable10notify_allEv(std::condition_variable* self) {
    const OrvLab::Unwatched unwatched;
    Simulation* simulation = Simulation::Current();
    if (simulation == nullptr) {
        __real__ZNSt18condition_variable10notify_allEv(self);
        return;
    }
    simulation->Notify(self, true);
    simulation->Step("notified all");
}

void __wrap__ZNSt18condition_variable10notify_oneEv(std::condition_variable* self) {
    const OrvLab::Unwatched unwatched;
    Simulation* simulation = Simulation::Current();
    if (simulation == nullptr) {
        __real__ZNSt18condition_variable10notify_oneEv(self);
        return;
    }
    simulation->Notify(self, false);
    simulation->Step("notified one");
}

void __wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(std::thread* self,
                                                                                                  ThreadState* state,
                                                                                                  void (*depend)()) {
    const OrvLab::Unwatched unwatched;
    Simulation* simulation = Simulation::Current();
    if (simulation == nullptr) {
        __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(self, state,
                                                                                                     depend);
        return;
    }
    if (!simulation->MayStart())
        throw std::system_error(EAGAIN, std::generic_category(), "start a thread");
    // What it captures ends in the thread itself, as in the library's.
    const auto body = std::make_shared<ThreadState>(std::move(*state));
    Simulation::Thread& thread = simulation->Start("", [body] {
        OrvLab::Watch([&] {
            (*body)->_M_run();
            body->reset();
        });
    });
    OrvLab::IdOf(self) = std::thread::id(static_cast<pthread_t>(thread.number));
    simulation->Step("started a thread");
}

void __wrap__ZNSt6thread4joinEv(std::thread* self) {
    const OrvLab::Unwatched unwatched;
    Simulation* simulation = Simulation::Current();
    if (simulation == nullptr) {
        __real__ZNSt6thread4joinEv(self);
        return;
    }
    Simulation::Thread& thread = OrvLab::ThreadOf(*simulation, self);
    if (&thread == &simulation->Self())
        simulation->Fail("joins itself");
    simulation->Join(thread);
    OrvLab::IdOf(self) = {};
}

void __wrap__ZNSt6thread6detachEv(std::thread* self) {
    const OrvLab::Unwatched unwatched;
    Simulation* simulation = Simulation::Current();
    if (simulation == nullptr) {
        __real__ZNSt6thread6detachEv(self);
        return;
    }
    OrvLab::ThreadOf(*simulation, self).detached = true;
    OrvLab::IdOf(self) = {};
}
// NOLINTEND(bugprone-reserved-identifier)
}
