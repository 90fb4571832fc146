// SPDX-License-Identifier: Apache-2.0
#include "broker/LogOutbox.h"

#include "Journal.h"

#include <gtest/gtest.h>

#include <string>

namespace OrvPlatform {

using OrvPlatformFake::Journal;
using Severity = ClientRecord::Severity;

TEST(ALogOutbox, WritesNothingByItself) {
    Journal::Clear();
    LogOutbox outbox;
    outbox.Add({Severity::ERROR, "text"});
    EXPECT_TRUE(Journal::Take().empty());
}

TEST(ALogOutbox, GivesItsRecordsAwayOnceAndInTheirOrder) {
    LogOutbox outbox;
    EXPECT_TRUE(outbox.IsEmpty());
    outbox.Add({Severity::INFO, "first"});
    outbox.Add({Severity::DEBUG, "second"});
    EXPECT_FALSE(outbox.IsEmpty());
    const auto taken = outbox.TakeAll();
    ASSERT_EQ(taken.size(), 2U);
    EXPECT_EQ(taken[0].text, "first");
    EXPECT_EQ(taken[1].text, "second");
    EXPECT_EQ(taken[1].severity, Severity::DEBUG);
    EXPECT_TRUE(outbox.IsEmpty());
    EXPECT_TRUE(outbox.TakeAll().empty());
}

TEST(AClientLog, PutsTheClientInFrontOfEachRecord) {
    Journal::Clear();
    const std::string id = "client";
    ClientLog log(id);
    log.WriteAll({{Severity::DEBUG, "a"}, {Severity::INFO, "b"}, {Severity::WARNING, "c"}, {Severity::ERROR, "d"}});
    log.WriteException("broken");
    log.WriteException(nullptr);
    log.WriteLeftToController("led");
    EXPECT_EQ(Journal::Take(),
              (OrvPlatformFake::Entries{
                  "log debug QueueOwner \"client: a\"", "log info QueueOwner \"client: b\"",
                  "log warning QueueOwner \"client: c\"", "log error QueueOwner \"client: d\"",
                  "log error QueueOwner \"client: an exception left the application's callback: broken\"",
                  "log error QueueOwner \"client: an exception of unknown type left the application's callback\"",
                  "log debug QueueOwner \"client: led is left to the gateway's controller, nothing is published\""}));
}

} // namespace OrvPlatform
