// SPDX-License-Identifier: Apache-2.0
#include "KitScene.h"

namespace OrvStackSdk::Testing {
namespace {

TEST(ADifference, IsNothingForTheSame) {
    EXPECT_EQ(Difference("a\nb\n", "a\nb\n"), "");
    EXPECT_EQ(Difference("", ""), "");
}

TEST(ADifference, MarksWhatIsMissingAndWhatCameUnexpected) {
    EXPECT_EQ(Difference("a\nb\nc\nd\n", "a\nc\nx\nd\n"), "- expected, + happened\n"
                                                          "  a\n"
                                                          "- b\n"
                                                          "  c\n"
                                                          "+ x\n"
                                                          "  d\n");
    EXPECT_EQ(Difference("", "a\n"), "- expected, + happened\n+ a\n");
    EXPECT_EQ(Difference("a\n", ""), "- expected, + happened\n- a\n");
}

TEST_F(AnApplicationOnTheKit, WritesOneJournalOfAllThatHappens) {
    Begin();
    client->EventUpdateRequest(OrvEvent::ETHERNET_CONNECTED);
    gateway.Advance(1500ms);
    gateway.broker.Publish("/orv/panel/guid", "4711", true);
    gateway.journal.Note("the test's own");
    client->PanelCommandRequest("now", 9);
    client->DeInit();
    EXPECT_EQ("", Difference("0.000 publish retained ORV_Stack \"/orv/led/connected_services_yellow\" \"On\"\n"
                             "0.000 publish retained ORV_Stack \"/orv/led/connected_services_green\" \"Off\"\n"
                             "0.000 publish retained ORV_Stack \"/orv/apps_control/features/Ent/status/NoExtNet\" "
                             "\"true\"\n"
                             "0.000 connman top eth0\n"
                             "0.000 file new_enterprise_statuses.csv \"\\\"Enterprise Feature\\\",\\\"Disabled\\\"\\n"
                             "\\\"Cloud Connection\\\",\\\"Down\\\"\\n\\\"Ethernet\\\",\\\"Up\\\"\\n"
                             "\\\"Cellular\\\",\\\"Down\\\"\"\n"
                             "1.500 neighbour publishes retained \"/orv/panel/guid\" \"4711\"\n"
                             "1.500 the test's own\n"
                             "1.500 publish ORV_Stack \"\" \"now\"\n"
                             "1.500 log warning OrvSessionMqtt \"KelboSessionMqtt::CommandReset(): Failed to publish "
                             "message to MQTT\"\n"
                             "1.500 disconnect ORV_Stack\n",
                             gateway.journal.TimedText()));
    ASSERT_EQ(gateway.journal.Entries().size(), 10U);
    EXPECT_EQ(gateway.journal.Entries()[6].at, 1500ms);
    EXPECT_EQ(gateway.journal.Entries()[6].what, "the test's own");
}

TEST_F(AnApplicationOnTheKit, IsReleasedWithoutAWordButItsGoodByeAndItsWill) {
    Begin();
    client.reset();
    EXPECT_EQ("", Difference("disconnect OrvRoute\n"
                             "will ORV_Stack \"/orv/apps_control/features/alarm/available\" \"false\"\n",
                             gateway.journal.Text()));
}

TEST(AJournal, TakesLogRecordsAsItIsAskedTo) {
    for (const auto& [records, text] :
         {std::pair{LogRecords::FROM_TRACE, "log trace OrvSessionMqtt <SetHandler> \"\"\n"}, {LogRecords::NONE, ""}}) {
        GatewayOptions options;
        options.logRecords = records;
        const Gateway gateway(options);
        const auto client = CreateClient();
        EXPECT_EQ(gateway.journal.Text({"log trace OrvSessionMqtt <SetHandler>"}), text);
    }
}

} // namespace
} // namespace OrvStackSdk::Testing
