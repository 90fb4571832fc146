// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "gateway/NetworkModel.h"
#include "gateway/ScriptedKernel.h"

#include <set>
#include <string>
#include <vector>

namespace OrvLab {

/// The entries that orv-source-routes has to have in the kernel, as docs/source-routes.md and the planner's header say.
class RoutesModel {
public:
    RoutesModel(const ScriptedKernel& its, Time at) : kernel(its), now(at) {}

    /// @return what is wrong with the interface's own table and rules; empty: nothing
    std::string Wrong(const std::string& name, std::uint32_t table) const;
    /// The same of the main table.
    /// @param told the connection manager's default interface; empty: it tells none
    std::string WrongInMain(const std::string& told) const;
    /// All that carries the program's number.
    std::string Left() const;

private:
    struct Six {
        const KernelLink* link = nullptr;
        std::set<std::string> networks;
        const KernelRoute* router = nullptr;
        bool HasWayOut() const { return link != nullptr && link->Running() && router != nullptr && !networks.empty(); }
    };
    Six LookAtSix(const std::string& name) const;
    std::string WrongFour(const std::string& name, std::uint32_t table) const;
    std::string WrongSix(const std::string& name, std::uint32_t table) const;
    std::string Compare(const std::string& what, std::multiset<std::string> wanted,
                        std::multiset<std::string> found) const;
    std::multiset<std::string> OwnRoutes(int family, std::uint32_t table) const;
    std::multiset<std::string> OwnRules(int family, std::uint32_t table) const;

    const ScriptedKernel& kernel;
    const Time now;
};

} // namespace OrvLab
