#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace KEL::container {

// A fixed set of threads that run the pieces of a job in parallel with the
// thread that asks: compressing the chunks of an atom's blobs while it is
// written, decompressing them while it is read. Several threads may hand in
// jobs at once (several serializers and readers); their pieces are taken in
// the order the jobs came, and each caller also works on its own job, so a
// job always finishes even when every worker is busy with another.
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

    unsigned Threads() const noexcept { return static_cast<unsigned>(threads_.size()); }

private:
    struct Job;
    void Work();
    // Takes the next piece of `job`, which is in the queue with a piece
    // left, and takes the job out of the queue with its last piece. Under
    // `mutex_`.
    std::size_t Take(Job& job);

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Job*> jobs_;  // jobs with pieces not yet taken
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace KEL::container
