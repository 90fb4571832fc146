// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/OncePerProcess.h"
#include "config/GatewayConfig.h"
#include "log/LogChannel.h"

namespace OrvPlatform {

/// Owns what a process has once: its configuration and its log, made on first use and never destroyed, and the fork
/// handlers that keep a forked child from finding them locked or half made. The rooms reach it by Config(),
/// ProcessLog() and LogLevelsAtStart(), which it defines.
class ProcessWide {
public:
    constexpr ProcessWide() noexcept = default;

    /// The settings, without a report.
    const LoadedConfig& Settings();

    /// Reports what is wrong with the settings when it is made.
    LogChannel& Log();

    /// The log's lock first: who makes it reads the settings.
    void BeforeFork();
    void AfterFork();

private:
    LogChannel* MakeLog();

    OncePerProcess<LogChannel> log;
    OncePerProcess<LoadedConfig> settings;
};

} // namespace OrvPlatform
