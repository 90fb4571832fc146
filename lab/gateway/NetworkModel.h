// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "gateway/ScriptedKernel.h"

#include <string>

namespace OrvLab {

/// What follows from what the kernel has, as the headers and the manual say.
struct NetworkModel {
    const ScriptedKernel& kernel;
    Time now;

    /// It can reach the outside with one family at least.
    bool HasAddress(const std::string& name) const;
    bool Running(const std::string& name) const;
    /// Who has the default route; empty: nobody.
    std::string DefaultInterface() const;
    std::string OwnerOf(const std::string& address) const;
    /// A lifetime is over, since that time, and the kernel has not said so.
    bool HasSilentExpiry(Time since = 0) const;

private:
    bool IsWayOut(const KernelRoute& route) const;
    std::string NameOf(unsigned link) const;
};

} // namespace OrvLab
