// SPDX-License-Identifier: Apache-2.0
// What happens on the gateway meanwhile.
#include "client/ClientProgram.h"
#include "client/Edge.h"
#include "client/Words.h"

namespace OrvLab {

void ClientProgram::GatewayThread() {
    while (threadsLeft > 0) {
        sim.Sleep(static_cast<Time>(random.Below(random.OneIn(3) ? 5000 : 400)) * MILLISECOND);
        if (random.OneIn(2))
            SendAtRandom();
        else
            TroubleAtRandom();
    }
}

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

std::string ClientProgram::OwnName() const {
    const std::string feature = story != nullptr ? story->feature : std::string("app");
    return feature.substr(0, feature.find('\0')); // no topic holds one
}

void ClientProgram::SendAtRandom() {
    constexpr const char* WORDS[] = {"reload", "RELOAD", "Enabled", "disabled", "booting",     "ready",
                                     "true",   "UP",     "up",      "false",    "UNSUPPORTED", ""};
    const std::string own = Texts::FEATURES + OwnName();
    const std::string word = random.OneIn(5) ? AnyText() : WORDS[random.Below(12)];
    std::string topic;
    switch (random.Below(10)) {
    case 0:
    case 1:
    case 2:
        topic = own + "/init";
        break;
    case 3:
        topic = own + (random.OneIn(2) ? "/available" : "/supported");
        break;
    case 4:
        topic = random.OneIn(3) ? own + "x/init"
                                : std::string(Texts::FEATURES) + (random.OneIn(2) ? "other/init" : "APP/init");
        break;
    case 5:
        topic = Texts::READINESS + std::string(random.OneIn(3) ? "alarm/" : "alarm");
        if (random.OneIn(4))
            topic = own + topic;
        break;
    case 6:
        topic = random.OneIn(2) ? Texts::GUID : Texts::PANEL_CONNECTION;
        break;
    case 7:
        topic = Texts::OF_THE_GATEWAY[random.Below(9)];
        break;
    default:
        topic = Texts::CELLULAR_TOPICS[random.Below(5)];
        break;
    }
    broker.Publish(topic, word, random.OneIn(3));
    for (unsigned more = random.OneIn(4) ? random.Below(6) : 0; more > 0; --more)
        broker.Publish(own + "/init", "reload", false);
    if (random.OneIn(6))
        broker.Publish(topic, word, false);
}

/// Another program answers to what has been published, at times before the call that has published it comes back.
/// @return for how long the call is held up
Time ClientProgram::ReactAtRandom() {
    if (isCollecting || threadsLeft == 0 || !random.OneIn(4))
        return 0;
    constexpr const char* WORDS[] = {"reload", "reload", "enabled", "disabled"};
    if (random.OneIn(4))
        SendAtRandom();
    else
        broker.Publish(Texts::FEATURES + OwnName() + "/init", WORDS[random.Below(4)], false);
    return random.OneIn(2) ? static_cast<Time>(random.Below(40)) * MILLISECOND : 0;
}

} // namespace OrvLab
