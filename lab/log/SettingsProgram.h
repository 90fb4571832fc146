// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "log/SettingsReference.h"
#include "sim/Random.h"
#include "sim/Simulation.h"

#include "config/GatewayConfig.h"

#include <cstddef>
#include <string>
#include <vector>

namespace OrvLab {

/// Texts of settings as administrators write them, compared with what the reference says of them: each value in force
/// and each report, from a text, from a file with the rights that it has, and with what the environment puts above it.
class SettingsProgram {
public:
    SettingsProgram(Simulation& simulation, Random& theRandom, const std::string& folder)
        : sim(simulation), random(theRandom), file(folder + "/any.ini") {}

    /// Leaves the environment as it was.
    void Run();
    /// Of the other contracts that stand on the settings: the helpers for words.
    void CheckWords();

private:
    using Faults = std::vector<SettingsReference::Fault>;

    void CheckText();
    void CheckFile();
    void CheckUnreadable();
    Faults PutEnvironment(SettingsReference& reference);
    void Compare(const OrvPlatform::ParsedConfig& parsed, const SettingsReference& reference, const Faults& others,
                 const std::string& name);
    void CompareFault(const std::string& said, const SettingsReference::Fault& fault, const std::string& name);
    void Write(const std::string& text, unsigned mode) const;
    [[noreturn]] void Fail(const std::string& what, const SettingsReference& reference);

    Simulation& sim;
    Random& random;
    const std::string file;
};

} // namespace OrvLab
