// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
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
    /// As send(): -1 with errno set.
    virtual long Send(const void* buffer, std::size_t size);
    /// No other file has had it.
    std::uint64_t Identity() const { return identity; }

private:
    static inline std::uint64_t made = 0;
    const std::uint64_t identity = ++made;
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
