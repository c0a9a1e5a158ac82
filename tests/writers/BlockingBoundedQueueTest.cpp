#include <KelCommon/BlockingBoundedQueue.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>

#include "support/Interleaving.h"

namespace {

using kel_test::Completion;
using Queue = KelCommon::BlockingBoundedQueue<int>;

// Push waits while the queue is full, until a pull frees a slot; Pull waits
// while it is empty, until a push or a flush's token comes, and returns that
// element.
TEST(BlockingBoundedQueue, PushWaitsWhileFullAndPullWhileEmpty) {
    Queue queue(1);
    queue.Push(1);
    Completion producer([&] { queue.Push(2); });
    EXPECT_TRUE(producer.Held());
    EXPECT_EQ(queue.Pull(), 1);
    producer.Wait();
    EXPECT_EQ(queue.CapacityAndSize(), (std::pair<std::uint32_t, std::size_t>(1, 1)));
    EXPECT_EQ(queue.Pull(), 2);
    for (const auto& wake : {std::function<void()>([&] { queue.Push(42); }),
                             std::function<void()>([&] { queue.FlushAndPutExitToken(42); })}) {
        int pulled = -1;
        Completion consumer([&] { pulled = queue.Pull(); });
        EXPECT_TRUE(consumer.Held());
        wake();
        consumer.Wait();
        EXPECT_EQ(pulled, 42);
    }
}

TEST(BlockingBoundedQueue, FlushDiscardsEverythingWithoutWaitingAndTheTokenTakesASlot) {
    for (int queued : {0, 1, 3}) {
        SCOPED_TRACE(queued);
        Queue queue(3);
        for (int i = 1; i <= queued; ++i) {
            queue.Push(i);
        }
        queue.FlushAndPutExitToken(-1);  // returns at once even on a full queue
        ASSERT_EQ(queue.Size(), 1U);     // (otherwise the pushes below would block)
        // The discarded elements freed their slots; the token holds one.
        queue.Push(4);
        queue.Push(5);
        EXPECT_EQ(queue.Size(), 3U);
        EXPECT_EQ(queue.Pull(), -1);
        EXPECT_EQ(queue.Pull(), 4);
    }
}

// Holds a consumer between taking its filled slot and taking the element.
struct ClaimHooks : KelCommon::NoQueueHooks {
    static inline std::atomic<kel_test::Gate*> gate{nullptr};
    static void AfterFilledSlotTaken() {
        if (kel_test::Gate* g = gate.load()) {
            g->Pass();
        }
    }
};

TEST(BlockingBoundedQueue, FlushLeavesTheOldestElementToTheConsumerThatClaimedIt) {
    KelCommon::BlockingBoundedQueue<int, ClaimHooks> queue(4);
    queue.Push(1);
    queue.Push(2);
    kel_test::Gate gate;
    ClaimHooks::gate = &gate;
    int pulled = 0;
    Completion consumer([&] { pulled = queue.Pull(); });
    gate.WaitEntered(1);  // the consumer owns a slot, element 1 is still queued
    ClaimHooks::gate = nullptr;
    queue.FlushAndPutExitToken(-1);
    gate.Open();
    consumer.Wait();
    // The consumer gets what it claimed, the oldest; the flush took the later one.
    EXPECT_EQ(pulled, 1);
    ASSERT_EQ(queue.Size(), 1U);
    EXPECT_EQ(queue.Pull(), -1);
}

}  // namespace
