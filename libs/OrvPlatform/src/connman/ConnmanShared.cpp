// SPDX-License-Identifier: Apache-2.0
#include "connman/ConnmanShared.h"

namespace OrvPlatform {

void ConnmanShared::NoteOnce(const std::string& text) {
    constexpr std::size_t ENOUGH = 32;
    if (noted.size() < ENOUGH && noted.insert(text).second) {
        notes.push_back(text);
        waker.Wake();
    }
}

void ConnmanShared::End() {
    const std::lock_guard<std::mutex> lock(mutex);
    ended = true;
    hasEnded.notify_all();
}

} // namespace OrvPlatform
