// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace OrvLab {

/// Sends a signal to the program that is explored; it waits to be taken.
void Raise(int number);
/// It takes signals.
bool CanRaise();

} // namespace OrvLab
