// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Planner.h"

#include <optional>
#include <string>
#include <vector>

namespace OrvSourceRoutes {

/// Reads "eth0=1011". Nothing when it is not NAME=TABLE, the table is one of the kernel's own (0, 253 to 255) or cannot
/// be a rule's priority (above 32765, behind the main table).
std::optional<InterfaceTable> ParseInterfaceTable(const std::string& text);

/// Why these tables do not do together; empty when they do.
std::string ProblemWith(const std::vector<InterfaceTable>& tables);

} // namespace OrvSourceRoutes
