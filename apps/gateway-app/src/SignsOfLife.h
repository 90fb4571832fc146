// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

namespace GatewayApp {

/// After so long without an acknowledgement a path counts as dead.
constexpr std::chrono::milliseconds kSilence{2500};

/// Lets the kernel end the connection when its path is silent: an idle one is asked for a sign of life every second,
/// and 2 s without an acknowledgement are the end, whether data are under way or not.
void SetFastLossDetection(int socket);

/// How long ago the other end last acknowledged anything. The kernel's own limits count anew when data are sent in the
/// middle of a silence, and would take both together.
std::chrono::milliseconds SilentFor(int socket);

/// Asks again at once when the kernel's question of every second has no answer yet. By the kernel alone one lost packet
/// ends the connection, because 2 s leave time for one question.
/// @return when to call again
std::chrono::milliseconds AskAgain(int socket);

} // namespace GatewayApp
