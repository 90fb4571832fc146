// SPDX-License-Identifier: Apache-2.0
#include "DeliveryThread.h"

#include "FakeBroker.h"

namespace OrvStackSdk::Testing {

DeliveryThread::DeliveryThread() : thread([this] { Run(); }) {}

DeliveryThread::~DeliveryThread() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ending = true;
    }
    wakeUp.notify_one();
    thread.join();
}

void DeliveryThread::Wake() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        woken.fetch_add(1, std::memory_order_relaxed);
    }
    wakeUp.notify_one();
}

void DeliveryThread::AwaitIdle() const {
    while (handled.load(std::memory_order_relaxed) != woken.load(std::memory_order_relaxed))
        std::this_thread::yield();
}

void DeliveryThread::Run() {
    unsigned long seen = 0;
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(mutex);
            wakeUp.wait(lock, [&] { return ending || woken.load(std::memory_order_relaxed) != seen; });
            if (ending)
                return;
            seen = woken.load(std::memory_order_relaxed);
        }
        OrvPlatformFake::FakeBroker::Get().Deliver();
        handled.store(seen, std::memory_order_relaxed);
    }
}

} // namespace OrvStackSdk::Testing
