// SPDX-License-Identifier: Apache-2.0
// ThreadSanitizer makes a call of each operation on an atomic. So in its build another thread may go on there, too:
// what is done in the wrong order without a lock is found. Counting up and down is left out: those are shared pointers,
// mostly.
#include "sim/Simulation.h"

#include <sanitizer/tsan_interface_atomic.h>

using OrvLab::Races;
using OrvLab::Simulation;

namespace {

void Step() {
    if (!Races::AreWatched())
        return;
    if (Simulation* simulation = Simulation::Current()) {
        const OrvLab::Unwatched unwatched;
        simulation->Step("atomic");
    }
}

} // namespace

// NOLINTBEGIN(bugprone-reserved-identifier, bugprone-macro-parentheses)
#define ORV_LAB_ATOMIC(SIZE)                                                                                           \
    extern "C" {                                                                                                       \
    using Value##SIZE = __tsan_atomic##SIZE;                                                                           \
    using Order = __tsan_memory_order;                                                                                 \
    Value##SIZE __real___tsan_atomic##SIZE##_load(const volatile Value##SIZE* place, Order order);                     \
    void __real___tsan_atomic##SIZE##_store(volatile Value##SIZE* place, Value##SIZE value, Order order);              \
    Value##SIZE __real___tsan_atomic##SIZE##_exchange(volatile Value##SIZE* place, Value##SIZE value, Order order);    \
    int __real___tsan_atomic##SIZE##_compare_exchange_strong(volatile Value##SIZE* place, Value##SIZE* expected,       \
                                                             Value##SIZE value, Order order, Order otherwise);         \
    int __real___tsan_atomic##SIZE##_compare_exchange_weak(volatile Value##SIZE* place, Value##SIZE* expected,         \
                                                           Value##SIZE value, Order order, Order otherwise);           \
    Value##SIZE __wrap___tsan_atomic##SIZE##_load(const volatile Value##SIZE* place, Order order) {                    \
        Step();                                                                                                        \
        return __real___tsan_atomic##SIZE##_load(place, order);                                                        \
    }                                                                                                                  \
    void __wrap___tsan_atomic##SIZE##_store(volatile Value##SIZE* place, Value##SIZE value, Order order) {             \
        Step();                                                                                                        \
        __real___tsan_atomic##SIZE##_store(place, value, order);                                                       \
    }                                                                                                                  \
    Value##SIZE __wrap___tsan_atomic##SIZE##_exchange(volatile Value##SIZE* place, Value##SIZE value, Order order) {   \
        Step();                                                                                                        \
        return __real___tsan_atomic##SIZE##_exchange(place, value, order);                                             \
    }                                                                                                                  \
    int __wrap___tsan_atomic##SIZE##_compare_exchange_strong(volatile Value##SIZE* place, Value##SIZE* expected,       \
                                                             Value##SIZE value, Order order, Order otherwise) {        \
        Step();                                                                                                        \
        return __real___tsan_atomic##SIZE##_compare_exchange_strong(place, expected, value, order, otherwise);         \
    }                                                                                                                  \
    int __wrap___tsan_atomic##SIZE##_compare_exchange_weak(volatile Value##SIZE* place, Value##SIZE* expected,         \
                                                           Value##SIZE value, Order order, Order otherwise) {          \
        Step();                                                                                                        \
        return __real___tsan_atomic##SIZE##_compare_exchange_weak(place, expected, value, order, otherwise);           \
    }                                                                                                                  \
    }

ORV_LAB_ATOMIC(8)
ORV_LAB_ATOMIC(16)
ORV_LAB_ATOMIC(32)
ORV_LAB_ATOMIC(64)
// NOLINTEND(bugprone-reserved-identifier, bugprone-macro-parentheses)
