// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <map>
#include <memory>

namespace OrvLab {

/// What a descriptor stands for. Closed when the last descriptor for it is.
class OpenFile {
public:
    virtual ~OpenFile() = default;
    /// POLLIN, POLLOUT, POLLHUP, POLLERR as poll() would report them now.
    virtual short Ready() const = 0;
    virtual std::size_t Waiting() const { return 0; } // bytes to be read, as FIONREAD tells
    virtual void ShutDownWriting() {}
    /// As recv(): 0 at the end; -1 with errno set.
    virtual long Receive(void* buffer, std::size_t size) = 0;
};

/// The descriptors of the simulated process. Their numbers are beyond those of the real one.
class Descriptors {
public:
    static Descriptors& Of();

    int Open(std::shared_ptr<OpenFile> file);
    int Duplicate(int number);
    /// @return false when there is no such descriptor
    bool Close(int number);
    OpenFile* Find(int number) const;
    static bool IsSimulated(int number) { return number >= FIRST; }
    std::size_t Count() const { return files.size(); }
    void Clear() { files.clear(); }

private:
    static constexpr int FIRST = 100'000;

    std::map<int, std::shared_ptr<OpenFile>> files;
};

} // namespace OrvLab
