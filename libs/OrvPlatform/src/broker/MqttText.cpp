// SPDX-License-Identifier: Apache-2.0
#include "broker/MqttText.h"

#include <mosquitto.h>

#include <algorithm>
#include <cstdint>

namespace OrvPlatform {

namespace {

bool IsControl(char c) {
    constexpr char rubout = 0x7f;
    return (c >= 0 && c < ' ') || c == rubout;
}

} // namespace

const char* FaultOfText(const std::string& text) {
    if (text.empty())
        return "is empty";
    if (text.size() > UINT16_MAX)
        return "is longer than 65535 bytes";
    if (std::any_of(text.begin(), text.end(), IsControl))
        return "holds a control character";
    // Refuses characters beyond ASCII too that are no text: C1 controls, surrogates, non-characters.
    if (mosquitto_validate_utf8(text.data(), static_cast<int>(text.size())) != MOSQ_ERR_SUCCESS)
        return "is not UTF-8 text";
    return nullptr;
}

const char* FaultOfTopic(const std::string& topic) {
    if (const char* fault = FaultOfText(topic))
        return fault;
    return topic.find_first_of("+#") == std::string::npos ? nullptr : "holds a wildcard (+ or #)";
}

std::string Shortened(const std::string& text) {
    constexpr std::size_t shown = 128;
    return text.size() <= shown ? text : text.substr(0, shown) + "...";
}

} // namespace OrvPlatform
