#include "container/WorkerPool.h"

#include <KEL/SerializeToKel.h>
#include <KelCommon/Thread.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <system_error>

namespace KEL::container {

struct WorkerPool::Job {
    std::size_t count = 0;
    const std::function<void(std::size_t)>* piece = nullptr;
    std::size_t next = 0;  // the next piece to take (under the pool's mutex)
    std::size_t done = 0;  // pieces finished (under `doneMutex`)
    std::mutex doneMutex;
    std::condition_variable allDone;

    void Finish() {
        const std::lock_guard lock(doneMutex);
        if (++done == count) {
            allDone.notify_all();
        }
    }
};

WorkerPool::WorkerPool(unsigned threads) : wanted_(threads) {
    const std::lock_guard lock(mutex_);
    StartWorkers();
}

void WorkerPool::StartWorkers() {
    threads_ = std::make_unique<std::vector<std::thread>>();
    threads_->reserve(wanted_);
    try {
        for (unsigned i = 0; i < wanted_; ++i) {
            threads_->emplace_back([this] { Work(); });
        }
    } catch (const std::system_error&) {
        // Fewer workers (the process may start no more threads): each caller
        // works on its own job, so every job still ends.
    }
}

void WorkerPool::ForgetParent() {
    // The parent's workers are not in this process: their handles are let
    // go (a few bytes, once per child) rather than joined, and their jobs,
    // whose callers are not here either, are dropped. Their waits on `wake_`
    // would block its destruction for ever: it is made anew over the old one.
    (void)threads_.release();  // NOLINT(bugprone-unused-return-value)
    jobs_.clear();
    new (&wake_) std::condition_variable();
}

WorkerPool::~WorkerPool() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (threads_) {
        for (auto& t : *threads_) {
            t.join();
        }
    }
}

WorkerPool& WorkerPool::Shared() {
    static WorkerPool pool([] {
        unsigned threads = GetSerializerSettings().compressionThreads;
        if (threads == 0) {
            threads = std::max(1U, std::thread::hardware_concurrency());
        }
        return threads - 1;  // the caller is one of them
    }());
    return pool;
}

void WorkerPool::ParallelFor(std::size_t count, const std::function<void(std::size_t)>& piece) {
    if (count == 0) {
        return;
    }
    if (count == 1 || wanted_ == 0) {
        for (std::size_t i = 0; i < count; ++i) {
            piece(i);
        }
        return;
    }
    Job job;
    job.count = count;
    job.piece = &piece;
    {
        const std::lock_guard lock(mutex_);
        if (!threads_) {
            StartWorkers();
        }
        jobs_.push_back(&job);
    }
    wake_.notify_all();
    for (;;) {
        std::size_t i = 0;
        {
            const std::lock_guard lock(mutex_);
            if (job.next == count) {
                break;  // every piece is taken, and the job out of the queue
            }
            i = Take(job);
        }
        piece(i);
        job.Finish();
    }
    std::unique_lock lock(job.doneMutex);
    job.allDone.wait(lock, [&] { return job.done == count; });
}

std::size_t WorkerPool::Take(Job& job) {
    const std::size_t i = job.next++;
    if (job.next == job.count) {
        // The last piece: no one may find the job in the queue any more.
        jobs_.erase(std::find(jobs_.begin(), jobs_.end(), &job));
    }
    return i;
}

void WorkerPool::Work() {
    KelCommon::concurrency::Thread::setCurrentThreadName("kel-codec");
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
        if (stopping_) {
            return;
        }
        Job* job = jobs_.front();
        const std::size_t i = Take(*job);
        lock.unlock();
        (*job->piece)(i);
        job->Finish();
        lock.lock();
    }
}

}  // namespace KEL::container
