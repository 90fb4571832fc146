// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace OrvPlatform {

/// What MQTT has against a text, in words that follow the text: "is empty". Null when it has nothing.
const char* FaultOfText(const std::string& text);

/// The same for a topic that is published on: a text without a wildcard. Levels may be empty.
const char* FaultOfTopic(const std::string& topic);

/// A text for a log record: cut when it is very long.
std::string Shortened(const std::string& text);

} // namespace OrvPlatform
