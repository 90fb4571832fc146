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

    /// Readable when the file may have changed; -1 where the kernel has none left for this user.
    int Descriptor() const { return notifications.Number(); }
    /// Looks too for a folder that has come, or has taken the watched one's place.
    /// @return whether the file itself was meant
    bool Changed();

private:
    void WatchFolder();

    const std::string file;
    OrvPlatform::FileDescriptor notifications;
    int watched = -1; // the folder, by the kernel's number for it; -1: none
};

} // namespace OrvStatus
