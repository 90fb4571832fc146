// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace OrvPlatform {

/// The file name of the program that this process runs, as the kernel knows it: the same whatever the program was
/// called with or calls itself; the interpreter's where a script runs. Where /proc is missing, the name it was called
/// with.
std::string ProgramName();

/// The same, from what /proc/self/exe leads to.
std::string ProgramNameOf(const std::string& executable);

} // namespace OrvPlatform
