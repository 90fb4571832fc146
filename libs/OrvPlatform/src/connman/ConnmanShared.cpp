// SPDX-License-Identifier: Apache-2.0
#include "connman/ConnmanShared.h"

namespace OrvPlatform {

void ConnmanShared::NoteOnce(const std::string& text) {
    constexpr std::size_t enough = 32;
    if (noted.size() < enough && noted.insert(text).second) {
        notes.push_back(text);
        waker.Wake();
    }
}

void ConnmanShared::End() {
    const MutexLock lock(mutex);
    ended = true;
    hasEnded.notify_all();
}

ConnmanServices ConnmanShared::Services() {
    const MutexLock lock(mutex);
    return services;
}

} // namespace OrvPlatform
