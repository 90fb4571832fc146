// SPDX-License-Identifier: Apache-2.0
// Programs with a fault each, which the torture must find. They run only when they are named.
#include "torture/Failures.h"
#include "torture/Programs.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace OrvLab {

namespace {

class Faulty : public Program {
protected:
    /// Whether it has failed.
    static bool TakesADescriptor() {
        const int file = eventfd(0, EFD_CLOEXEC);
        if (file >= 0)
            close(file);
        return file < 0;
    }
    bool failed = false;
};

class Leaking final : public Faulty {
    void Tortured() override {
        char* volatile text = new char[100];
        if (!TakesADescriptor())
            delete[] text;
    }
};

class Crashing final : public Faulty {
    void Tortured() override {
        char* volatile nowhere = nullptr;
        if (TakesADescriptor())
            *nowhere = 1;
    }
};

class Throwing final : public Faulty {
    void Tortured() override {
        Try("TakesADescriptor", [] {
            if (TakesADescriptor())
                throw std::runtime_error("no descriptor");
        });
    }
};

class Forgetting final : public Faulty {
    void Tortured() override { failed = TakesADescriptor(); }
    void DemandAll() override {
        if (failed)
            Fail("afterwards, in vain: that it is remembered", IN_VAIN);
    }
};

/// In a thread that has begun before.
class Ending final : public Faulty {
    void Tortured() override {
        std::thread([] {
            if (TakesADescriptor())
                throw std::runtime_error("on a thread of its own");
        }).join();
    }
};

/// In vain the first time at each point, as on a machine that is busy.
class Hurried final : public Faulty {
public:
    static constexpr std::size_t TAKES = 4;

    void Tortured() override {
        for (std::size_t take = 0; take < TAKES; ++take) {
            if (!TakesADescriptor())
                continue;
            point = failures++ == 0 ? 2 * take : point;
        }
    }
    void DemandAll() override {
        if (failures > 0 && !wasInVain[point + (failures > 1 ? 1 : 0)].exchange(true))
            Fail("afterwards, in vain: that there is time enough", IN_VAIN);
    }

private:
    // The attempts share it.
    static std::atomic<bool>* wasInVain;
    std::size_t point = 0;
    std::size_t failures = 0;
};

std::atomic<bool>* Hurried::wasInVain = [] {
    constexpr std::size_t size = 2 * TAKES * sizeof(std::atomic<bool>);
    void* shared = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED)
        Fail("no memory that attempts share");
    return new (shared) std::atomic<bool>[2 * TAKES] {};
}();

/// It keeps something each time, and still has it in the end.
class Hoarding final : public Faulty {
    void Tortured() override { failed = TakesADescriptor(); }
    void DemandAll() override {
        DemandNoGrowth([this] {
            if (failed)
                kept.push_back(std::make_unique<char[]>(100));
        });
    }
    std::vector<std::unique_ptr<char[]>> kept;
};

/// A thread is left, which nobody waits for.
class Threading final : public Faulty {
    void Tortured() override {
        if (TakesADescriptor())
            std::thread([] { std::this_thread::sleep_for(std::chrono::hours(1)); }).detach();
    }
};

/// What is watched is not forgotten.
class Registering final : public Faulty {
    void Before() override {
        epoll = epoll_create1(EPOLL_CLOEXEC);
        watched = eventfd(0, EFD_CLOEXEC);
    }
    void Tortured() override {
        epoll_event event{};
        if (TakesADescriptor())
            epoll_ctl(epoll, EPOLL_CTL_ADD, watched, &event);
    }
    int epoll = -1;
    int watched = -1;
};

/// Says what is not so when a lock cannot be had.
class Claiming final : public Faulty {
    void Tortured() override {
        const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
        if (flock(file, LOCK_SH | LOCK_NB) != 0)
            Fail("somebody else has the lock");
        close(file);
    }
};

class Hopeless final : public Faulty {
    void Tortured() override { Fail("does not work at all"); }
};

template <typename Kind>
std::unique_ptr<Program> Make(Gateway&) {
    return std::make_unique<Kind>();
}

} // namespace

const std::vector<ProgramKind>& FaultyPrograms() {
    static const std::vector<ProgramKind> all{
        {"leaking", {}, Make<Leaking>},         {"crashing", {}, Make<Crashing>},
        {"throwing", {}, Make<Throwing>},       {"forgetting", {}, Make<Forgetting>},
        {"ending", {}, Make<Ending>},           {"hopeless", {}, Make<Hopeless>},
        {"hurried", {}, Make<Hurried>},         {"hoarding", {}, Make<Hoarding>},
        {"threading", {}, Make<Threading>},     {"registering", {}, Make<Registering>},
        {"claiming", {}, Make<Claiming>, true},
    };
    return all;
}

} // namespace OrvLab
