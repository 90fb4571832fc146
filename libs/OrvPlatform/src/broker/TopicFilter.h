// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace OrvPlatform {

/// Whether one of the filters, as they are used for subscriptions, matches the topic. Callable from any thread.
bool MatchesAny(const std::vector<std::string>& filters, const std::string& topic);

} // namespace OrvPlatform
