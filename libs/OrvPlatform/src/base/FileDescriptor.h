// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

namespace OrvPlatform {

/// Owns a file descriptor, or none. Leaves errno alone when it closes.
class FileDescriptor {
public:
    FileDescriptor() noexcept = default;
    /// @param opened what open() and its like returned; negative for none
    explicit FileDescriptor(int opened) noexcept : number(opened) {}
    FileDescriptor(FileDescriptor&& other) noexcept : number(std::exchange(other.number, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other)
            Reset(std::exchange(other.number, -1));
        return *this;
    }
    ~FileDescriptor() { Reset(); }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    /// Closes what it owns, and owns `opened` from then on.
    void Reset(int opened = -1) noexcept {
        const int error = errno;
        if (number >= 0)
            ::close(number);
        number = opened;
        errno = error;
    }

    bool IsOpen() const noexcept { return number >= 0; }
    int Number() const noexcept { return number; }

private:
    int number = -1;
};

} // namespace OrvPlatform
