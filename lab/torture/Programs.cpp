// SPDX-License-Identifier: Apache-2.0
#include "torture/Programs.h"

#include "torture/Failures.h"
#include "torture/OpenDescriptors.h"

#include "CommonUtils/Logger.h"

#include <sanitizer/allocator_interface.h>

#include <new>

namespace OrvLab {

const std::vector<ProgramKind>& AllPrograms() {
    static const std::vector<ProgramKind> all{
        {"settings", {}, ReadSettings},
        {"reload", {}, ReloadLevels},
        {"orders", {true, false}, OrderTheWay},
        {"begin", {}, BeginAndInit},
        {"work", {}, WorkAndLoseTheBroker},
        {"supervise", {}, LookForTheCloud},
        {"fail-over", {true, true}, FailOver},
        {"leave", {}, Leave},
        {"c", {true, false}, LiveInC},
        {"speak", {false, false, true}, Speak},
        {"override", {}, OverrideLevels},
        {"again", {true, false}, LiveAgain, true},
        {"lock", {}, LockTheGateway, true},
        {"csv", {}, WatchTheCsv, true},
        {"status", {}, WriteTheStatus, true},
        {"dial", {}, CallTheCloud, true},
        {"prove", {false, true}, ProveAWay, true},
        {"notify", {}, NotifyTheManager, true},
        {"netlink", {}, AskTheKernel, true},
        {"routes", {}, KeepRoutes, true},
    };
    return all;
}

void Try(const char* name, const std::function<void()>& call) {
    try {
        call();
    } catch (const std::bad_alloc&) {
    } catch (const std::exception& exception) {
        const Tortured notThis(false);
        if (std::string(exception.what()) != "OrvRoute cannot connect to MQTT broker.")
            Fail(std::string(name) + " throws \"" + exception.what() + "\"");
    }
}

void DemandNoGrowth(const std::function<void()>& life) {
    constexpr int MOST = 8; // whoever leaves something each time does so each time
    std::string all;
    long memory = 0;
    Holdings held;
    for (int count = 0; count < MOST; ++count) {
        life();
        const Holdings now = OpenDescriptors::Fewest();
        const auto used = static_cast<long>(__sanitizer_get_current_allocated_bytes());
        all += "; " + std::to_string(used) + " bytes, " + std::to_string(now.descriptors) + " descriptors, " +
               std::to_string(now.threads) + " threads, " + std::to_string(now.registrations) + " registrations";
        if (count > 0 && used <= memory && now.descriptors <= held.descriptors && now.threads <= held.threads &&
            now.registrations <= held.registrations)
            return;
        memory = used;
        held = now;
    }
    Fail("afterwards, in vain: a repetition leaves nothing behind" + all, IN_VAIN);
}

void HaveSettings() {
    CommonUtils::Logger logger("the settings are read", 0);
    logger.Warning() << "the log has begun";
}

} // namespace OrvLab
