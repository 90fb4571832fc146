// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "CloudSettings.h"

#include <chrono>
#include <string>
#include <vector>

namespace GatewayApp {

/// What the application is told on its command line and in its configuration file.
struct AppOptions {
    /// The feature's name in the connected-services stack.
    std::string name = "gateway-app";
    CloudSettings cloud;
    /// How often an idle connection to the cloud is asked for a sign of life, by the interface that it runs over.
    std::chrono::seconds keepAliveEthernet{1};
    std::chrono::seconds keepAliveCellular{30};
    /// The time between ticks; zero: by the situation, see TickRhythm.
    std::chrono::milliseconds tick{0};
    /// See InstanceLock; empty: none.
    std::string lock = "/run/gateway-app/lock";
    /// See StatusWriter; empty: none.
    std::string statusFile = "/run/gateway-app/status.json";
    /// See Transcript; empty: none.
    std::string transcript;
};

/// The command line, or the file that it names, is not right. The text says what and how to put it right.
struct OptionsError {
    std::string text;
    int exitStatus; // 0 when help was asked for
};

/// Reads the command line and the configuration file that it names (--config); the command line has the last word.
/// @param arguments without the program's name
/// @throws OptionsError
AppOptions ReadOptions(const std::vector<std::string>& arguments);

/// What a reload makes of the options.
struct ReloadedOptions {
    AppOptions options;
    /// The names of those that have changed and keep their old value until the next start, such as "name, lock".
    std::string waiting;
};

/// Reads the same again while the application runs. Name, lock, status file and transcript stay what they are.
/// @param running what the application runs with
/// @throws OptionsError
ReloadedOptions ReloadOptions(const AppOptions& running, const std::vector<std::string>& arguments);

} // namespace GatewayApp
