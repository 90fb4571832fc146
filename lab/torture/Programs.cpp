// SPDX-License-Identifier: Apache-2.0
#include "torture/Programs.h"

#include "torture/Failures.h"

#include "CommonUtils/Logger.h"

#include <new>

namespace OrvLab {

const std::vector<ProgramKind>& AllPrograms() {
    static const std::vector<ProgramKind> all{
        {"settings", {}, ReadSettings},         {"reload", {}, ReloadLevels},
        {"orders", {true, false}, OrderTheWay}, {"begin", {}, BeginAndInit},
        {"work", {}, WorkAndLoseTheBroker},     {"supervise", {}, LookForTheCloud},
        {"fail-over", {true, true}, FailOver},  {"leave", {}, Leave},
        {"c", {true, false}, LiveInC},          {"speak", {false, false, true}, Speak},
        {"override", {}, OverrideLevels},
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

void HaveSettings() {
    CommonUtils::Logger logger("the settings are read", 0);
    logger.Warning() << "the log has begun";
}

} // namespace OrvLab
