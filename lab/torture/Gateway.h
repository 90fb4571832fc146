// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "torture/SmallBroker.h"
#include "torture/SmallBus.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace OrvLab {

/// What a gateway has beside the broker.
struct Equipment {
    bool bus = false;    ///< with the connection manager
    bool cloud = false;  ///< the endpoint is the one at ORV_CLOUD_PORT; otherwise nobody answers a poke
    bool speaks = false; ///< logs to standard error, not to a file
};

/// The surroundings of one application, of its own: a broker, settings, a log, perhaps more. None of it ever fails.
/// Ethernet is eth9, which does not exist; Cellular is lo.
class Gateway {
public:
    explicit Gateway(const Equipment& equipment);
    ~Gateway();
    Gateway(const Gateway&) = delete;
    Gateway& operator=(const Gateway&) = delete;

    void SetLogLevel(const char* level) const;
    /// Whether the log says so. From then on what it has said before counts no more.
    bool Logs(const std::string& text);
    void ForgetLog();
    /// Somebody else's, which anybody may write to, stands in the place of the status file.
    static void HaveForeignStatusFile();

    SmallBroker broker;
    std::string folder;
    std::optional<SmallBus> bus;

private:
    std::string LogFile() const { return folder + "/log"; }

    const bool speaks;
    std::string endpoint = "127.0.0.1:9";
};

/// Something that must not be has happened.
[[noreturn]] void Fail(const std::string& what, int status = 3);

/// The exit status of a process in which something has been waited for in vain.
constexpr int IN_VAIN = 4;

/// For this process the clock goes on by so much.
void SkipTime(std::chrono::seconds duration);

bool Within(std::chrono::milliseconds limit, const std::function<bool()>& condition);

/// Nothing fails any more: that has to be so at the latest after a while.
void Demand(const char* what, const std::function<bool()>& condition);

} // namespace OrvLab
