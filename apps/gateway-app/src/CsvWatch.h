// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "EventLoop.h"

#include <CommonUtils/Logger.h>
#include <OrvStackSdk/OrvEnums.h>

#include <chrono>
#include <functional>
#include <string>

namespace GatewayApp {

/// What the client library's status file must hold, by the events that were reported to the library.
class ExpectedCsv {
public:
    void Reported(OrvStackSdk::OrvEvent event);
    std::string Text() const;

private:
    bool enabled = false;
    bool cloud = false;
    bool ethernet = false;
    bool cellular = false;
};

/// How soon the file may be put right again, so that two programs that both do it end up in a slow quarrel and not in a
/// fast one: at once for sixty times, then every five seconds; unused times come back at the same pace.
class RepairLimit {
public:
    using Time = std::chrono::steady_clock::time_point;

    /// How long to wait from now.
    std::chrono::milliseconds Wait(Time now);
    /// It was put right.
    void Used() { --left; }
    /// The sixty are used up.
    bool Reached() const { return left <= 0; }

private:
    void Refill(Time now);

    int left = 60;
    Time refilled;
};

/// Notices within a second that another program has written or removed the status file: every client of the library
/// that is made on the gateway writes "all is down" into it. Notices too that the library's own text has not reached
/// the file, because its folder is full or read-only: the library does not tell. Then it is put right after 1, 2, 4 s
/// and so on, at last once a minute, until it holds what it must. Where the folder is gone, or has another name, the
/// one that has taken its place is watched, from the next event on if there is none yet. One thread.
class CsvWatch {
public:
    /// @param path the file; its folder must exist
    /// @param putRight has the library write the file anew
    /// @throws std::system_error when the folder cannot be watched
    CsvWatch(EventLoop& eventLoop, std::string path, std::function<void()> putRight);
    ~CsvWatch();

    /// To be told of every event, once it has been reported to the library.
    void Reported(OrvStackSdk::OrvEvent event);
    /// Whether there is a client that the file speaks for; before, nothing is put right.
    void SetActive(bool isActive);
    /// The repair waits each time because another program writes the file again and again.
    bool IsSlowedDown() const { return limit.Reached(); }
    /// How often the library has been made to write what did not reach the file; 0 once it has, and when another
    /// program wrote the file.
    unsigned VainWrites() const { return vainWrites; }

private:
    bool WatchFolder();
    void WatchAnotherFolder();
    void OnChange();
    void ScheduleCheck();
    void Check();
    void WriteAgain();
    bool IsRight() const;

    CommonUtils::Logger logger;
    EventLoop& loop;
    const std::string file;
    const std::function<void()> repair;
    ExpectedCsv content;
    RepairLimit limit;
    Descriptor notifications;
    int watched = -1; // the folder, by the kernel's number for it; -1: none
    Timer timer;
    Timer writeAgain;
    bool active = false;
    bool waiting = false;
    bool written = true; // as far as it is the library's affair
    unsigned vainWrites = 0;
};

} // namespace GatewayApp
