// SPDX-License-Identifier: Apache-2.0
// What the gateway's other programs publish.
#include "client/ClientProgram.h"
#include "client/Words.h"

namespace OrvLab {

std::string ClientProgram::AnyText() {
    switch (random.Below(9)) {
    case 0:
        return "";
    case 1:
        return std::string(127 + random.Below(4), 'm');
    case 2:
        return std::string("a\0b\x01\n\x7f", 6);
    case 3:
        return "\xc3(\xff";
    case 4:
        return std::string(random.OneIn(3) ? 300'000 : 5000, 'h');
    default:
        return "text " + std::to_string(random.Below(100));
    }
}

void ClientProgram::SendAtRandom() {
    constexpr const char* WORDS[] = {"reload", "RELOAD", "Enabled", "disabled", "booting",     "ready",
                                     "true",   "UP",     "up",      "false",    "UNSUPPORTED", ""};
    const std::string own = Texts::FEATURES + (story != nullptr ? story->feature : std::string("app"));
    const std::string word = random.OneIn(5) ? AnyText() : WORDS[random.Below(12)];
    std::string topic;
    switch (random.Below(9)) {
    case 0:
    case 1:
    case 2:
        topic = own + "/init";
        break;
    case 3:
        topic = own + (random.OneIn(2) ? "/available" : "/supported");
        break;
    case 4:
        topic = std::string(Texts::FEATURES) + (random.OneIn(2) ? "other/init" : "shutdown_readiness");
        break;
    case 5:
        topic = Texts::READINESS + std::string(random.OneIn(3) ? "alarm/" : "alarm");
        break;
    case 6:
        topic = random.OneIn(2) ? Texts::GUID : Texts::PANEL_CONNECTION;
        break;
    default:
        topic = Texts::CELLULAR_TOPICS[random.Below(5)];
        break;
    }
    broker.Publish(topic, word, random.OneIn(3));
    if (random.OneIn(6))
        broker.Publish(topic, word, false);
}

} // namespace OrvLab
