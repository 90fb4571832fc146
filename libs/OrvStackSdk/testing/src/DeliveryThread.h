// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace OrvStackSdk::Testing {

/// The thread on which the broker's messages reach the application, where a test asks for one.
class DeliveryThread {
public:
    DeliveryThread();
    ~DeliveryThread();
    DeliveryThread(const DeliveryThread&) = delete;
    DeliveryThread& operator=(const DeliveryThread&) = delete;

    /// There may be something to deliver. Callable from any thread, with the broker locked too.
    void Wake();

    /// Waits until everything is delivered that it was woken for before. It does so without any lock or ordering, on
    /// purpose: the order of events is the same each time, yet what the application has not synchronised itself stays
    /// unsynchronised, and ThreadSanitizer sees it.
    void AwaitIdle() const;

private:
    void Run();

    std::mutex mutex;
    std::condition_variable wakeUp;
    bool ending = false;
    std::atomic<unsigned long> woken{0};
    std::atomic<unsigned long> handled{0};
    std::thread thread;
};

} // namespace OrvStackSdk::Testing
