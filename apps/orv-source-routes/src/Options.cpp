// SPDX-License-Identifier: Apache-2.0
#include "Options.h"

#include <linux/rtnetlink.h>

#include <charconv>

namespace OrvSourceRoutes {

std::optional<InterfaceTable> ParseInterfaceTable(const std::string& text) {
    const std::size_t sign = text.find('=');
    if (sign == 0 || sign == std::string::npos)
        return std::nullopt;
    InterfaceTable entry;
    entry.interface = text.substr(0, sign);
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data() + sign + 1, end, entry.table);
    constexpr std::uint32_t behindMain = 32766; // the priority of the main table's rule
    const bool kernels =
        entry.table == RT_TABLE_UNSPEC || (entry.table >= RT_TABLE_DEFAULT && entry.table <= RT_TABLE_LOCAL);
    if (error != std::errc() || rest != end || kernels || entry.table >= behindMain)
        return std::nullopt;
    return entry;
}

std::string ProblemWith(const std::vector<InterfaceTable>& tables) {
    for (std::size_t i = 0; i < tables.size(); ++i) {
        for (std::size_t j = 0; j < i; ++j) {
            if (tables[i].interface == tables[j].interface)
                return tables[i].interface + " is named twice; name each interface once";
            if (tables[i].table == tables[j].table)
                return tables[i].interface + " and " + tables[j].interface + " have the same table; give each its own";
        }
    }
    return {};
}

} // namespace OrvSourceRoutes
