// SPDX-License-Identifier: Apache-2.0
#include "base/ProgramName.h"

#include <cerrno>
#include <climits>
#include <string_view>
#include <unistd.h>

namespace OrvPlatform {

std::string ProgramName() {
    char path[PATH_MAX];
    const ssize_t size = ::readlink("/proc/self/exe", path, sizeof path);
    if (size <= 0)
        return program_invocation_short_name;
    return ProgramNameOf(std::string(path, static_cast<std::size_t>(size)));
}

std::string ProgramNameOf(const std::string& executable) {
    std::string name = executable.substr(executable.rfind('/') + 1);
    // The kernel's mark once the file has been replaced, by an update for one.
    constexpr std::string_view deleted = " (deleted)";
    if (name.size() > deleted.size() && name.compare(name.size() - deleted.size(), deleted.size(), deleted) == 0)
        name.erase(name.size() - deleted.size());
    return name;
}

} // namespace OrvPlatform
