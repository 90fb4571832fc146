// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

namespace GatewayApp {

/// After so long without an acknowledgement a path counts as dead: the kernel asks every second, two of them in vain.
constexpr std::chrono::milliseconds kSilence{2500};

/// Lets the kernel end the connection when its path is silent: when idle, after 1 s of silence it asks every second and
/// takes two asks without an answer as the end; with data under way, 2 s without an acknowledgement are the end.
void SetFastLossDetection(int socket);

/// How long ago the other end last acknowledged anything. The kernel's own limits count anew when data are sent in the
/// middle of a silence, and would take both together.
std::chrono::milliseconds SilentFor(int socket);

} // namespace GatewayApp
