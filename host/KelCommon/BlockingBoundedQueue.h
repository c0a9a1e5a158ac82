#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace KelCommon {

// Points inside the queue's operations at which a test can stop a thread to
// force an interleaving. The queue calls them as static functions of its
// Hooks parameter; this default does nothing and costs nothing.
struct NoQueueHooks {
    // In Pull, after the filled slot is taken and before the element is.
    static void AfterFilledSlotTaken() {}
    // In PullUnless, after the element is taken (and the stop looked at).
    static void AfterTaken() {}
    // At the end of FlushAndPutExitToken, after the token is queued.
    static void AfterFlush() {}
};

// A first-in first-out queue with a fixed capacity: Push waits while the queue
// is full, Pull waits while it is empty.
//
// Design. Two counting semaphores decide who waits: the free-slot count
// (starts at the capacity; Push takes one, Pull gives one back) and the
// filled-slot count (starts at 0; Push gives one, Pull takes one). Each count
// has its own mutex and condition variable; the elements themselves live in a
// deque under a third mutex (the items lock). No operation holds two of the
// three locks at once, so there is no lock order. Each hand-over wakes one
// waiter; no operation spins.
//
// Because the counts and the deque are updated under different locks they
// can disagree for a moment: after a Pull removed an element and before it
// returned the free slot, a concurrent Push still waits for that slot.
//
// A consumer that has taken a filled slot owns the element at the front of
// the deque from then on, even before it removes it: the elements nobody has
// claimed are always the ones at the back.
//
// Threads: any number of producers and consumers may call Push, Pull, Size
// and CapacityAndSize at once. FlushAndPutExitToken is meant for the owner
// that is the only producer while it flushes; it never waits for elements
// and never takes one that a consumer has claimed.
//
// Lifetime: the queue must not be destroyed while a thread waits in Push or
// Pull; its owner first makes the consumers leave (with an exit token and a
// stop flag of its own) and joins them. Destroying the queue destroys the
// elements still in it.
//
// Errors: none are reported. An exception while copying an element (out of
// memory) propagates; the slot taken before it is then lost.
template <class T, class Hooks = NoQueueHooks>
class BlockingBoundedQueue {
public:
    // `capacity` is the number of elements that fit; callers pass at least 1
    // (a queue of capacity 0 blocks every Push forever).
    explicit BlockingBoundedQueue(std::uint32_t capacity) : capacity_(capacity), freeSlots_(capacity) {}
    BlockingBoundedQueue(const BlockingBoundedQueue&) = delete;
    BlockingBoundedQueue& operator=(const BlockingBoundedQueue&) = delete;
    ~BlockingBoundedQueue() = default;

    // Appends a copy of `item`; waits while the queue is full.
    void Push(T item) {
        TakeFreeSlot();
        {
            std::lock_guard<std::mutex> lock(itemsLock_);
            items_.push_back(std::move(item));
        }
        GiveFilledSlot();
    }

    // Removes and returns the oldest element; waits while the queue is empty.
    // There is no time-out.
    T Pull() {
        {
            std::unique_lock<std::mutex> lock(filledLock_);
            filledSignal_.wait(lock, [this] { return filledSlots_ != 0; });
            --filledSlots_;
        }
        Hooks::AfterFilledSlotTaken();
        return TakeAndGiveFreeSlot(End::kFront);
    }

    // Pull for a consumer that can be told to stop. `stopRequested()` is
    // asked once the consumer's slot is claimed and before its element is
    // taken: when it says yes, the element is taken and discarded and nothing
    // is returned. An element returned was thus taken before the stop was
    // requested, and one taken after it never reaches the consumer, however
    // the threads interleave.
    template <class StopRequested>
    std::optional<T> PullUnless(StopRequested&& stopRequested) {
        {
            std::unique_lock<std::mutex> lock(filledLock_);
            filledSignal_.wait(lock, [this] { return filledSlots_ != 0; });
            --filledSlots_;
        }
        Hooks::AfterFilledSlotTaken();
        const bool stop = stopRequested();
        std::optional<T> result(TakeAndGiveFreeSlot(End::kFront));
        Hooks::AfterTaken();
        if (stop) {
            result.reset();
        }
        return result;
    }

    // Discards every queued element, then pushes `token`. The token is an
    // ordinary element chosen by the caller (for example one that tells a
    // consumer blocked in Pull to look at its stop flag). Only unclaimed
    // elements are discarded, one per filled slot the flush can take, from
    // the back: a consumer that has taken its slot but not yet its element
    // still gets the element it claimed (the oldest), never a later one, and
    // the flushing thread never waits for an element that another consumer
    // took at the same moment.
    void FlushAndPutExitToken(T token) {
        while (TryTakeFilledSlot()) {
            (void)TakeAndGiveFreeSlot(End::kBack);
        }
        Push(std::move(token));
        Hooks::AfterFlush();
    }

    // Number of queued elements (read under the items lock).
    std::size_t Size() const {
        std::lock_guard<std::mutex> lock(itemsLock_);
        return items_.size();
    }

    std::uint32_t GetCapacity() const noexcept { return capacity_; }

    // The capacity and the number of queued elements, read together under
    // the items lock, so that "is the queue full" is judged on one snapshot.
    std::pair<std::uint32_t, std::size_t> CapacityAndSize() const {
        std::lock_guard<std::mutex> lock(itemsLock_);
        return {capacity_, items_.size()};
    }

private:
    void TakeFreeSlot() {
        std::unique_lock<std::mutex> lock(freeLock_);
        freeSignal_.wait(lock, [this] { return freeSlots_ != 0; });
        --freeSlots_;
    }

    void GiveFilledSlot() {
        std::lock_guard<std::mutex> lock(filledLock_);
        ++filledSlots_;
        filledSignal_.notify_one();
    }

    bool TryTakeFilledSlot() {
        std::lock_guard<std::mutex> lock(filledLock_);
        if (filledSlots_ == 0) {
            return false;
        }
        --filledSlots_;
        return true;
    }

    enum class End { kFront, kBack };

    // Called with a filled slot already taken.
    T TakeAndGiveFreeSlot(End end) {
        T result;
        {
            std::lock_guard<std::mutex> lock(itemsLock_);
            if (end == End::kFront) {
                result = std::move(items_.front());
                items_.pop_front();
            } else {
                result = std::move(items_.back());
                items_.pop_back();
            }
        }
        {
            std::lock_guard<std::mutex> lock(freeLock_);
            ++freeSlots_;
            freeSignal_.notify_one();
        }
        return result;
    }

    const std::uint32_t capacity_;
    std::deque<T> items_;
    mutable std::mutex itemsLock_;
    std::mutex freeLock_;
    std::condition_variable freeSignal_;
    std::uint32_t freeSlots_;
    std::mutex filledLock_;
    std::condition_variable filledSignal_;
    std::uint32_t filledSlots_ = 0;
};

}  // namespace KelCommon
