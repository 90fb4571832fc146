// SPDX-License-Identifier: Apache-2.0
#include "connman/ConnmanShared.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace OrvPlatform {

ConnmanShared::ConnmanShared() : wakeDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

ConnmanShared::~ConnmanShared() {
    close(wakeDescriptor);
}

void ConnmanShared::Wake() const noexcept {
    eventfd_write(wakeDescriptor, 1);
}

void ConnmanShared::NoteOnce(const std::string& text) {
    constexpr std::size_t ENOUGH = 32;
    if (noted.size() < ENOUGH && noted.insert(text).second) {
        notes.push_back(text);
        Wake();
    }
}

void ConnmanShared::End() {
    const std::lock_guard<std::mutex> lock(mutex);
    ended = true;
    hasEnded.notify_all();
}

} // namespace OrvPlatform
