// SPDX-License-Identifier: Apache-2.0
#include "broker/EventQueue.h"

#include <gtest/gtest.h>

#include <string>

namespace OrvPlatform {

void Push(EventQueue& queue, const std::string& payload) {
    queue.Next().payload = payload;
    queue.Push();
}

TEST(AnEventQueue, KeepsOrderOverReuse) {
    EventQueue queue;
    for (const char* text : {"first", "second"})
        Push(queue, text);
    queue.Clear();
    EXPECT_TRUE(queue.Empty());
    Push(queue, "third");
    ASSERT_EQ(queue.Size(), 1U);
    EXPECT_EQ(queue[0].payload, "third");
}

TEST(AnEventQueue, LetsGoOfLargeTexts) {
    EventQueue queue;
    Event& large = queue.Next();
    large.payload.assign(1 << 20U, 'x');
    large.topic.assign(1 << 15U, 'x');
    queue.Push();
    queue.Clear();
    const Event& next = queue.Next();
    EXPECT_LE(next.payload.capacity(), 1024U);
    EXPECT_LE(next.topic.capacity(), 1024U);
}

TEST(AnEventQueue, ChangesPlacesWithAnother) {
    EventQueue queue;
    EventQueue other;
    Push(queue, "first");
    queue.Swap(other);
    EXPECT_TRUE(queue.Empty());
    ASSERT_EQ(other.Size(), 1U);
    EXPECT_EQ(other[0].payload, "first");
}

TEST(AnEventQueue, LetsGoOfTheSlotsThatABurstNeeded) {
    EventQueue queue;
    for (int number = 0; number < 1000; ++number)
        Push(queue, "leftover");
    queue.Clear();
    std::size_t used = 0;
    for (int number = 0; number < 1000; ++number) {
        used += queue.Next().payload == "leftover" ? 1 : 0;
        queue.Push();
    }
    EXPECT_EQ(used, EventQueue::MOST_KEPT);
}

TEST(AnEventQueue, DoesNotCountAnEventThatWasNotPushed) {
    EventQueue queue;
    queue.Next().payload = "half";
    EXPECT_TRUE(queue.Empty());
    Push(queue, "whole");
    ASSERT_EQ(queue.Size(), 1U);
    EXPECT_EQ(queue[0].payload, "whole");
}

} // namespace OrvPlatform
