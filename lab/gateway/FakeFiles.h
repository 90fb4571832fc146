// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Descriptors.h"
#include "sim/Random.h"
#include "sim/Simulation.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace OrvLab {

/// The files of gateway-app, in memory: the library's status file, its own one, and its lock; and what the kernel tells
/// of changes. Other programs write them, too, and at times there is no room.
class FakeFiles {
public:
    static constexpr const char* CSV = "/var/tmp/new_enterprise_statuses.csv";
    static constexpr const char* STATUS = "/lab/status.json";
    static constexpr const char* LOCK = "/lab/lock";

    struct Content {
        std::string text;
        bool locked = false;
    };

    FakeFiles() { present = this; }
    ~FakeFiles() { present = nullptr; }
    FakeFiles(const FakeFiles&) = delete;
    FakeFiles& operator=(const FakeFiles&) = delete;

    /// Null outside of a world that has them.
    static FakeFiles* Present() { return present; }
    static bool Has(const char* path);

    /// Null when there is none.
    std::shared_ptr<Content> Find(const std::string& path) const;
    std::string Text(const std::string& path) const;
    /// @return false when there is no room
    bool Put(const std::string& path, const std::string& text);
    void Remove(const std::string& path);

    /// @name The calls, with errno
    /// @{
    int Open(const std::string& path, int flags);
    int Rename(const std::string& from, const std::string& to);
    int Unlink(const std::string& path);
    int Watch(int notifications, const std::string& folder, std::uint32_t what);
    /// @}

    bool full = false;
    bool unwatchable = false;
    /// Told of each file that stands in its place anew.
    std::function<void(const std::string& path)> onReplaced;

private:
    class Handle;
    class Notifications;
    void Tell(const std::string& path, std::uint32_t what);

    static inline FakeFiles* present = nullptr;
    std::map<std::string, std::shared_ptr<Content>> files;
    std::vector<std::weak_ptr<Notifications>> listeners;
    friend struct FakeFileCalls;
};

} // namespace OrvLab
