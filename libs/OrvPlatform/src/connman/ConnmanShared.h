// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/ThreadSafety.h"
#include "base/Waker.h"
#include "connman/ConnmanServices.h"
#include "connman/PendingOrders.h"

#include <condition_variable>
#include <set>
#include <string>
#include <vector>

namespace OrvPlatform {

/// What the callers and the thread share, under a mutex that is held only for as long as it takes to look or to note.
class ConnmanShared {
public:
    /// UNKNOWN: not asked yet; AWAY: there is no connection manager; KNOWN: `services` is its picture.
    enum class Picture { UNKNOWN, AWAY, KNOWN };

    ConnmanShared() = default;
    ConnmanShared(const ConnmanShared&) = delete;
    ConnmanShared& operator=(const ConnmanShared&) = delete;

    /// Has the thread log `text`, the first time only.
    void NoteOnce(const std::string& text) ORV_REQUIRES(mutex);

    /// The thread has ended.
    void End() ORV_EXCLUDES(mutex);

    /// A copy of the picture.
    ConnmanServices Services() ORV_EXCLUDES(mutex);

    Mutex mutex;
    std::condition_variable_any hasEnded;
    Picture picture ORV_GUARDED_BY(mutex) = Picture::UNKNOWN;
    ConnmanServices services ORV_GUARDED_BY(mutex); ///< written by the thread only
    PendingOrders orders ORV_GUARDED_BY(mutex);
    std::vector<std::string> notes ORV_GUARDED_BY(mutex);
    bool stopping ORV_GUARDED_BY(mutex) = false;
    bool ended ORV_GUARDED_BY(mutex) = false;
    Waker waker; ///< opened with the thread, so that a forked child has no descriptor that it could close by mistake

private:
    std::set<std::string> noted ORV_GUARDED_BY(mutex);
};

} // namespace OrvPlatform
