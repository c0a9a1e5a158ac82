#include <KelCommon/BlockingBoundedQueue.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <numeric>
#include <set>
#include <thread>
#include <vector>

namespace {

using Queue = KelCommon::BlockingBoundedQueue<int>;

// Runs `body` on a thread and reports when it has returned.
class Completion {
public:
    template <class F>
    explicit Completion(F body)
        : thread_([this, body] {
              body();
              std::lock_guard<std::mutex> lock(mutex_);
              done_ = true;
              cv_.notify_all();
          }) {}
    ~Completion() { thread_.join(); }
    bool Done() {
        std::lock_guard<std::mutex> lock(mutex_);
        return done_;
    }
    void Wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        cv_.wait(lock, [this] { return done_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool done_ = false;
    std::thread thread_;
};

TEST(BlockingBoundedQueue, ElementsComeOutInPushOrder) {
    Queue queue(8);
    for (int i = 0; i < 8; ++i) {
        queue.Push(i);
    }
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(queue.Pull(), i);
    }
    EXPECT_EQ(queue.Size(), 0U);
}

TEST(BlockingBoundedQueue, SecondPushWaitsUntilFirstIsPulledWithCapacityOne) {
    Queue queue(1);
    queue.Push(1);
    std::atomic<bool> secondPushed{false};
    Completion producer([&] {
        queue.Push(2);
        secondPushed = true;
    });
    // The second Push cannot complete while the only slot is taken: the
    // queue stays at one element until a Pull frees it.
    EXPECT_EQ(queue.Size(), 1U);
    EXPECT_FALSE(secondPushed.load());
    EXPECT_EQ(queue.Pull(), 1);
    producer.Wait();
    EXPECT_TRUE(secondPushed.load());
    EXPECT_EQ(queue.Pull(), 2);
}

TEST(BlockingBoundedQueue, PullWaitsForPushAndReturnsThatElement) {
    Queue queue(2);
    int pulled = -1;
    Completion consumer([&] { pulled = queue.Pull(); });
    EXPECT_FALSE(consumer.Done());
    queue.Push(42);
    consumer.Wait();
    EXPECT_EQ(pulled, 42);
}

TEST(BlockingBoundedQueue, FlushOnEmptyQueueLeavesOnlyTheToken) {
    Queue queue(3);
    queue.FlushAndPutExitToken(-1);
    EXPECT_EQ(queue.Size(), 1U);
    EXPECT_EQ(queue.Pull(), -1);
}

TEST(BlockingBoundedQueue, FlushOnFullQueueDiscardsEverythingWithoutWaiting) {
    Queue queue(3);
    queue.Push(1);
    queue.Push(2);
    queue.Push(3);
    queue.FlushAndPutExitToken(-1);
    EXPECT_EQ(queue.Size(), 1U);
    EXPECT_EQ(queue.Pull(), -1);
    // All slots are free again.
    queue.Push(4);
    queue.Push(5);
    queue.Push(6);
    EXPECT_EQ(queue.Size(), 3U);
}

TEST(BlockingBoundedQueue, FlushWakesAConsumerBlockedInPull) {
    Queue queue(2);
    int pulled = 0;
    Completion consumer([&] { pulled = queue.Pull(); });
    queue.FlushAndPutExitToken(-7);
    consumer.Wait();
    EXPECT_EQ(pulled, -7);
}

TEST(BlockingBoundedQueue, SizeCountsTheTokenLikeAnyElement) {
    Queue queue(4);
    queue.Push(1);
    EXPECT_EQ(queue.Size(), 1U);
    queue.FlushAndPutExitToken(0);
    EXPECT_EQ(queue.Size(), 1U);
    queue.Push(2);
    EXPECT_EQ(queue.Size(), 2U);
}

TEST(BlockingBoundedQueue, CapacityAndSizeAreReadTogether) {
    Queue queue(5);
    EXPECT_EQ(queue.GetCapacity(), 5U);
    queue.Push(1);
    queue.Push(2);
    const auto [capacity, size] = queue.CapacityAndSize();
    EXPECT_EQ(capacity, 5U);
    EXPECT_EQ(size, 2U);
}

TEST(BlockingBoundedQueue, DestroyingAQueueReleasesItsElements) {
    auto element = std::make_shared<int>(3);
    {
        KelCommon::BlockingBoundedQueue<std::shared_ptr<int>> queue(2);
        queue.Push(element);
        EXPECT_EQ(element.use_count(), 2);
    }
    EXPECT_EQ(element.use_count(), 1);
}

TEST(BlockingBoundedQueue, ManyProducersAndConsumersHandOverEveryElementOnce) {
    constexpr int kProducers = 4;
    constexpr int kConsumers = 3;
    constexpr int kPerProducer = 2000;
    constexpr int kTotal = kProducers * kPerProducer;
    Queue queue(3);
    std::vector<std::thread> threads;
    std::mutex seenMutex;
    std::multiset<int> seen;
    std::atomic<int> remaining{kTotal};
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([&, p] {
            for (int i = 0; i < kPerProducer; ++i) {
                queue.Push(p * kPerProducer + i);
            }
        });
    }
    for (int c = 0; c < kConsumers; ++c) {
        threads.emplace_back([&] {
            std::vector<int> mine;
            for (;;) {
                const int value = queue.Pull();
                if (value < 0) {
                    break;
                }
                mine.push_back(value);
                if (--remaining == 0) {
                    // Last element: release every consumer.
                    for (int k = 0; k < kConsumers; ++k) {
                        queue.Push(-1);
                    }
                }
            }
            std::lock_guard<std::mutex> lock(seenMutex);
            seen.insert(mine.begin(), mine.end());
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_EQ(seen.size(), static_cast<std::size_t>(kTotal));
    int expected = 0;
    for (int value : seen) {
        EXPECT_EQ(value, expected++);
    }
    EXPECT_EQ(queue.Size(), 0U);
}

TEST(BlockingBoundedQueue, EachProducersElementsStayInOrder) {
    Queue queue(2);
    std::thread producer([&] {
        for (int i = 0; i < 5000; ++i) {
            queue.Push(i);
        }
    });
    int last = -1;
    for (int i = 0; i < 5000; ++i) {
        const int value = queue.Pull();
        EXPECT_EQ(value, last + 1);
        last = value;
    }
    producer.join();
}

}  // namespace
