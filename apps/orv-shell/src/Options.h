// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace OrvShell {

/// What orv-shell and orv-simulate are told when they are started.
struct Options {
    std::string scenario; // empty: standard input
    std::chrono::milliseconds tick{100};
    bool isCheckOnly = false;
};

/// What a program says of itself.
struct ProgramTexts {
    const char* name;
    std::string help;
    const char* version;
};

/// Reads the command line; prints help and version where they are asked for, and to standard error what cannot be
/// understood.
/// @param mayCheck there is an option --check
/// @return the exit status when there is nothing more to do, Loop::SUCCESS or Loop::USAGE
std::optional<int> ReadOptions(int argc, char** argv, const ProgramTexts& program, bool mayCheck, Options& options);

} // namespace OrvShell
