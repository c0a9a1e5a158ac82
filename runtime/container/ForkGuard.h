#pragma once

#include <functional>
#include <mutex>

namespace KEL::container {

// Keeps an object whose threads this library starts (the worker pool, a
// reader's read-ahead, the buffer pool they allocate from) usable in a child
// of fork(), which Python's multiprocessing does on Linux by default.
//
// A child has only the thread that forked. Two things of the parent's other
// threads would stay behind in it and block it for ever: a mutex one of them
// held at the fork, and the waits they were in (destroying or reusing a
// condition variable that had waiters blocks until those waiters leave). So
// every guarded mutex is taken before the fork and let go on both sides
// after it, and in the child each object is then told to start afresh
// (`inChild` runs with its mutex held): it forgets its parent's threads,
// their work and their waits.
//
// Mutexes are taken in the order of their Rank, outer ones first, so that a
// thread that holds one while it takes another (a read-ahead that releases a
// buffer) never deadlocks with the fork.
class ForkGuard {
public:
    enum class Rank : int { kReadAhead = 0, kWorkerPool = 1, kBufferPool = 2 };

    ForkGuard(Rank rank, std::mutex& mutex, std::function<void()> inChild = {});
    ~ForkGuard();
    ForkGuard(const ForkGuard&) = delete;
    ForkGuard& operator=(const ForkGuard&) = delete;

    // For tests: called before a fork waits for a guarded mutex that another
    // thread holds, so that a test can hold one until the fork waits for it.
    static void SetWaitHook(void (*hook)());

private:
    friend struct ForkGuardRegistry;
    Rank rank_;
    std::mutex& mutex_;
    std::function<void()> inChild_;
    ForkGuard* next_ = nullptr;
};

}  // namespace KEL::container
