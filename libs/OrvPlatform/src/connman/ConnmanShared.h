// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/Waker.h"
#include "connman/ConnmanServices.h"
#include "connman/ConnmanWanted.h"

#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace OrvPlatform {

/// What the callers and the thread share. `mutex` guards everything; it is held only for as long as it takes to look or
/// to note. `services` is written by the thread only, which therefore reads it without.
struct ConnmanShared {
    /// UNKNOWN: not asked yet; AWAY: there is no connection manager; KNOWN: `services` is its picture.
    enum class Picture { UNKNOWN, AWAY, KNOWN };

    ConnmanShared() = default;
    ConnmanShared(const ConnmanShared&) = delete;
    ConnmanShared& operator=(const ConnmanShared&) = delete;

    /// Has the thread log `text`, the first time only.
    void NoteOnce(const std::string& text);
    void End();

    std::mutex mutex;
    std::condition_variable hasEnded;
    Picture picture = Picture::UNKNOWN;
    ConnmanServices services;
    ConnmanWanted wanted;
    std::set<std::string> noted;
    std::vector<std::string> notes;
    bool stopping = false;
    bool ended = false;
    Waker waker; ///< opened with the thread, so that a forked child has no descriptor that it could close by mistake
};

} // namespace OrvPlatform
