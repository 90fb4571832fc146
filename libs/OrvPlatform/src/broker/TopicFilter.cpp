// SPDX-License-Identifier: Apache-2.0
#include "broker/TopicFilter.h"

#include <mosquitto.h>

#include <algorithm>

namespace OrvPlatform {

bool MatchesAny(const std::vector<std::string>& filters, const std::string& topic) {
    return std::any_of(filters.begin(), filters.end(), [&](const std::string& filter) {
        bool matches = false;
        return mosquitto_topic_matches_sub(filter.c_str(), topic.c_str(), &matches) == MOSQ_ERR_SUCCESS && matches;
    });
}

} // namespace OrvPlatform
