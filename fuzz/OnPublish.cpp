// SPDX-License-Identifier: Apache-2.0
// Messages from the broker: any topic with any payload is either one indication or none, with the whole payload, one
// bounded log record, and nothing is sent.
#include "FakeGateway.h"
#include "Journal.h"
#include "OrvSessionMqtt.h"
#include "OrvTopics.h"
#include "RecordingSessionHandler.h"
#include "Require.h"

#include <cstdint>
#include <fuzzer/FuzzedDataProvider.h>
#include <memory>

namespace {

using OrvFuzz::Require;
using OrvPlatformFake::Entries;
using OrvPlatformFake::Journal;
namespace Topics = OrvStackSdk::Topics;

bool BeginsWith(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

std::string Topic(FuzzedDataProvider& input, const std::string& feature) {
    const std::string known[] = {
        Topics::OfFeature(feature, Topics::INIT),
        Topics::OfFeature(feature, Topics::AVAILABLE),
        Topics::OfFeature(feature, Topics::SUPPORTED),
        Topics::PANEL_GUID,
        Topics::PANEL_CONNECTION_STATUS,
        Topics::MODEM_IMEI,
        Topics::SIM_STRENGTH,
        Topics::SHUTDOWN_READINESS,
        Topics::FEATURES,
        "",
    };
    return input.PickValueInArray(known) + input.ConsumeRandomLengthString(64);
}

void RequireTruth(const Entries& entries, const std::string& topic, const std::string& message) {
    const Entries indications = OrvPlatformFake::Only(entries, {"indication "});
    Require(indications.size() <= 1, "a message is at most one indication");
    Require(entries.size() - indications.size() == 1, "a message is one log record, and nothing else happens");
    Require(entries[0].size() < topic.size() + 500, "the log record is bounded whatever the payload");
    if (topic == Topics::PANEL_GUID)
        Require(indications == Entries{"indication OnDeviceProbeIndication(" + message + ")"},
                "a device's id comes through whole");
    if (topic == Topics::MODEM_IMEI)
        Require(indications.size() == 1 && indications[0].find(message) != std::string::npos,
                "a modem's value comes through whole");
    if (topic == Topics::PANEL_CONNECTION_STATUS)
        Require(indications == Entries{std::string("indication OnDeviceConnectionStatusIndication(") +
                                       (message == "UP" ? "true)" : "false)")},
                "the panel is up only by its word");
    if (!BeginsWith(topic, "/orv/") && topic.find(Topics::SHUTDOWN_READINESS) == std::string::npos)
        Require(indications.empty(), "a foreign topic is no indication");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const std::string feature = input.ConsumeRandomLengthString(16);
    const std::string topic = Topic(input, feature);
    const std::string message = input.ConsumeRemainingBytesAsString();

    OrvPlatformFake::FakeGateway::Reset();
    OrvStackSdk::OrvSessionMqtt session;
    const auto receiver = std::make_shared<OrvStackSdk::Testing::RecordingSessionHandler>();
    session.SetHandler(receiver);
    session.InitRequest(feature);
    Journal::Clear();
    session.OnPublish(topic, message);
    RequireTruth(Journal::Take(), topic, message);
    return 0;
}
