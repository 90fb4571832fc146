// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "config/GatewayConfig.h"

#include <string>
#include <string_view>
#include <vector>

namespace OrvPlatform {

/// One key of the configuration file.
struct Setting {
    std::string section;
    std::string key;
    std::string valid; // what is valid, for messages
    /// Puts the value into the configuration; false, and nothing changed, when it is not valid.
    bool (*read)(const std::string& value, GatewayConfig& config);
    /// The value as it would stand in the file.
    std::string (*show)(const GatewayConfig& config);
    enum class Showing {
        ALWAYS,
        WHEN_VALID, ///< a value that is not valid may be, or hold, a password that was meant for another line
        NEVER       ///< a secret: neither in a report nor by ShowGatewayConfig
    } showing = Showing::ALWAYS;
};

/// All of them, in the order of the shipped file.
const std::vector<Setting>& Settings();

/// The one of them with that key; null when there is none.
const Setting* FindSetting(std::string_view section, std::string_view key);

/// The settings' section names, each once.
std::vector<std::string> SectionNames();

/// The one of `words` that was probably meant by `word`; empty when none is near.
std::string Nearest(std::string_view word, const std::vector<std::string>& words);

} // namespace OrvPlatform
