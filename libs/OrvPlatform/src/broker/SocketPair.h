// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <utility>
#include <vector>

namespace OrvPlatform {

/// The process's unnamed, non-blocking unix stream sockets that a program started by exec would inherit: what
/// socketpair() leaves behind. A descriptor and the inode that stays its own when the number is used again.
using PairedSockets = std::vector<std::pair<int, ino_t>>;
PairedSockets FindPairedSockets();

/// Of those that are there now and were not before: when these are two, they are a pair of which nothing is known but
/// that somebody may write to it and nobody reads it. They are closed on exec, and hold no more unread bytes than the
/// least that the kernel allows. With more, another thread has made sockets of its own at the same moment: nothing is
/// done.
/// @return whether there was such a pair
bool RestrainUnreadPair(const PairedSockets& before);

} // namespace OrvPlatform
