// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace OrvStatus {

enum class Form : int { TABLE, JSON, METRICS, QUIET };
enum class Pace : int { ONCE, FOLLOW, WATCH };

struct Options {
    Form form = Form::TABLE;
    Pace pace = Pace::ONCE;
    enum class Colour : int { AUTO, ALWAYS, NEVER } colour = Colour::AUTO;
    /// gateway-app's.
    std::string statusFile = "/run/gateway-app/status.json";
    /// How it identifies itself to the broker; empty: as gateway.ini says.
    std::string user, passwordFile;
};

/// What to print instead of going on, and the exit status.
struct Ending {
    std::string text;
    int exitStatus = 0;
};

/// @throws Ending for --help, --version and what cannot be understood
Options ReadOptions(int count, char** words);

/// The first line of the file.
/// @throws Ending when there is none, with the reason and never with what is in the file
std::string ReadPassword(const std::string& path);

} // namespace OrvStatus
