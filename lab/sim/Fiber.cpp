// SPDX-License-Identifier: Apache-2.0
#include "sim/Fiber.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <cxxabi.h>
#include <new>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define ORV_LAB_ADDRESS_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORV_LAB_ADDRESS_SANITIZER
#endif
#endif
#ifdef ORV_LAB_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#endif

#ifdef ORV_LAB_THREAD_SANITIZER
#include <sanitizer/tsan_interface.h>
#endif

#if defined(__x86_64__)
// As swapcontext, without its two system calls, which would take most of the time, and without the signal mask.
extern "C" void OrvLabSwap(void** from, void* to);
asm(R"(
.text
.globl OrvLabSwap
.hidden OrvLabSwap
.type OrvLabSwap, @function
OrvLabSwap:
    pushq %rbp
    pushq %rbx
    pushq %r12
    pushq %r13
    pushq %r14
    pushq %r15
    movq %rsp, (%rdi)
    movq %rsi, %rsp
    popq %r15
    popq %r14
    popq %r13
    popq %r12
    popq %rbx
    popq %rbp
    ret
.size OrvLabSwap, .-OrvLabSwap
)");
#endif

namespace OrvLab {

namespace {

constexpr std::size_t PAGE = 4096;
constexpr std::size_t STACK = std::size_t{256} * 1024;

std::vector<void*>& FreeStacks() {
    static std::vector<void*> stacks;
    return stacks;
}

void* TakeStack() {
    auto& spare = FreeStacks();
    if (!spare.empty()) {
        void* stack = spare.back();
        spare.pop_back();
        return stack;
    }
    void* stack = mmap(nullptr, STACK, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (stack == MAP_FAILED)
        throw std::bad_alloc();
    mprotect(stack, PAGE, PROT_NONE);
    return stack;
}

Fiber* arriving = nullptr; // from here to there during a change

#ifdef ORV_LAB_ADDRESS_SANITIZER
Fiber* leaving = nullptr;
#endif

#if defined(__x86_64__)
void Swap(void*& from, void* to) {
    OrvLabSwap(&from, to);
}
#else
void Swap(ucontext_t& from, ucontext_t& to) {
    swapcontext(&from, &to);
}
#endif

} // namespace

#ifdef ORV_LAB_THREAD_SANITIZER
Fiber::Fiber() : thread(__tsan_get_current_fiber()) {}
#else
Fiber::Fiber() = default;
#endif

#if defined(__x86_64__)
void Fiber::Prepare() {
    constexpr std::size_t SAVED_REGISTERS = 6;
    auto** top = reinterpret_cast<void**>(static_cast<char*>(stack) + STACK);
    *--top = nullptr; // whom Enter would return to
    *--top = reinterpret_cast<void*>(&Fiber::Enter);
    for (std::size_t count = 0; count < SAVED_REGISTERS; ++count)
        *--top = nullptr;
    context = top;
}
#else
void Fiber::Prepare() {
    getcontext(&context);
    context.uc_stack.ss_sp = static_cast<char*>(stack) + PAGE;
    context.uc_stack.ss_size = stackSize;
    context.uc_link = nullptr;
    makecontext(&context, &Fiber::Enter, 0);
}
#endif

Fiber::Fiber(std::function<void()> main) : body(std::move(main)), stack(TakeStack()) {
    stackBottom = static_cast<char*>(stack) + PAGE;
    stackSize = STACK - PAGE;
    Prepare();
#ifdef ORV_LAB_THREAD_SANITIZER
    thread = __tsan_create_fiber(0);
#endif
}

Fiber::~Fiber() {
    if (stack == nullptr)
        return;
#ifdef ORV_LAB_ADDRESS_SANITIZER
    __asan_unpoison_memory_region(stackBottom, stackSize);
#endif
#ifdef ORV_LAB_THREAD_SANITIZER
    __tsan_destroy_fiber(thread);
#endif
    FreeStacks().push_back(stack);
}

void Fiber::SwitchTo(Fiber& next) {
    Leave(next, false);
}

void Fiber::EndWith(Fiber& next) {
    Leave(next, true);
}

void Fiber::Leave(Fiber& next, bool forGood) {
    error = errno;
    // What the C++ runtime keeps of a thread: the exceptions that are caught, and the number of those in flight.
    std::memcpy(static_cast<void*>(exceptions), abi::__cxa_get_globals(), sizeof exceptions);
    locals.Exchange(); // theirs are kept, and what was there is back
    arriving = &next;
#ifdef ORV_LAB_ADDRESS_SANITIZER
    leaving = this;
    __sanitizer_start_switch_fiber(forGood ? nullptr : &fakeStack, next.stackBottom, next.stackSize);
#elif defined(ORV_LAB_THREAD_SANITIZER)
    watched = Races::watched;
    if (forGood)
        Races::Watch(true); // it wants no thread to end otherwise
    Races::watched = next.watched;
    __tsan_switch_to_fiber(next.thread, __tsan_switch_to_fiber_no_sync);
#else
    static_cast<void>(forGood);
#endif
    Swap(context, next.context);
    arriving->Arrived();
}

void Fiber::Arrived() {
#ifdef ORV_LAB_ADDRESS_SANITIZER
    const void* bottom = nullptr;
    std::size_t size = 0;
    __sanitizer_finish_switch_fiber(fakeStack, &bottom, &size);
    if (leaving->stack == nullptr) {
        leaving->stackBottom = bottom;
        leaving->stackSize = size;
    }
#endif
    std::memcpy(abi::__cxa_get_globals(), static_cast<const void*>(exceptions), sizeof exceptions);
    locals.Exchange();
    errno = error;
}

void Fiber::Enter() noexcept {
    Fiber* self = arriving;
    self->Arrived();
    self->body();
}

} // namespace OrvLab
