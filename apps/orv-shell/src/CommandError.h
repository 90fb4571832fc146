// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdexcept>

namespace OrvShell {

/// What a command line got wrong or what a command could not do, in words for the person who typed it.
class CommandError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace OrvShell
