// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Snapshot.h"

#include <base/FileDescriptor.h>

#include <functional>
#include <string>
#include <string_view>

namespace OrvStatus {

/// What the kernel says of a process that the status file names.
using ProcessLooker = std::function<bool(long pid, double start)>;

/// True when the process is there and began at that time, as far as this user may know.
bool IsThere(long pid, double start);

/// What gateway-app's status file says.
/// @param text the file's
/// @param now seconds of CLOCK_MONOTONIC
ApplicationView ReadApplication(std::string_view text, double now, const ProcessLooker& isThere);

/// Follows gateway-app's status file.
class ApplicationWatch {
public:
    explicit ApplicationWatch(std::string path);

    ApplicationView Read(double now) const;

    /// Readable when the file may have changed; -1 while its folder is not there.
    int Descriptor() const { return notifications.Number(); }
    /// @return whether the file itself was meant
    bool Changed();

private:
    const std::string file;
    OrvPlatform::FileDescriptor notifications;
};

} // namespace OrvStatus
