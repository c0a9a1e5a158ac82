#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "container/ForkGuard.h"

namespace KEL::container {

// A fixed set of threads that run the pieces of a job in parallel with the
// thread that asks: compressing the chunks of an atom's blobs while it is
// written, decompressing them while it is read. Several threads may hand in
// jobs at once (several serializers and readers); their pieces are taken in
// the order the jobs came, and each caller also works on its own job, so a
// job always finishes even when every worker is busy with another.
//
// In a child of fork() the pool forgets its parent's workers and their jobs,
// and starts workers of its own with the child's first job.
class WorkerPool {
public:
    // `threads` workers besides the callers; 0 runs every job on its caller.
    explicit WorkerPool(unsigned threads);
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // The process's pool, made on first use with one thread per core but the
    // caller's (or SerializerSettings::compressionThreads - 1).
    static WorkerPool& Shared();

    // Calls piece(0) .. piece(count - 1), each once, on the caller and the
    // workers, and returns when all have returned. `piece` must not throw.
    void ParallelFor(std::size_t count, const std::function<void(std::size_t)>& piece);

    unsigned Threads() const noexcept { return wanted_; }

private:
    struct Job;
    void Work();
    // Takes the next piece of `job`, which is in the queue with a piece
    // left, and takes the job out of the queue with its last piece. Under
    // `mutex_`.
    std::size_t Take(Job& job);
    // Under `mutex_`.
    void StartWorkers();
    // In a child of fork(), under `mutex_`.
    void ForgetParent();

    const unsigned wanted_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Job*> jobs_;  // jobs with pieces not yet taken
    bool stopping_ = false;
    // Null in a child of fork() until its first job. Held by pointer so that
    // a child can let go of its parent's threads without joining them.
    std::unique_ptr<std::vector<std::thread>> threads_;
    ForkGuard forkGuard_{ForkGuard::Rank::kWorkerPool, mutex_, [this] { ForgetParent(); }};
};

}  // namespace KEL::container
