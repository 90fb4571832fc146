// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

namespace OrvStackSdk {

/// A small file for other processes, in a folder where every user may create files. A foreign file in its place is
/// replaced and never written to. Failures are silent, and opening never waits for another process.
class StatusFile {
public:
    /// Opens the file and empties it, or makes it, with the mode that the umask leaves of 0666. A file of our own stays
    /// the same file; a link, a file that has further names or another owner, a FIFO and the like are removed first.
    /// What cannot be removed (a folder, or somebody else's file for want of the right) stays, and nothing is written.
    explicit StatusFile(const char* path) noexcept;
    ~StatusFile();
    StatusFile(const StatusFile&) = delete;
    StatusFile& operator=(const StatusFile&) = delete;

    /// Appends the text in one piece, unless the disk is full.
    void Write(const char* text, std::size_t length) const noexcept;

private:
    const int descriptor; // -1 when there is nothing to write to
};

} // namespace OrvStackSdk
