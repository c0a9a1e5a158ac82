#include "container/AtomReadAhead.h"

#include <KelCommon/Thread.h>
#include <pthread.h>

#include <memory>
#include <new>
#include <utility>

namespace KEL::container {

namespace {
constexpr const char* kThreadName = "kel-read-ahead";
}  // namespace

AtomReadAhead::AtomReadAhead(Fetch fetch) : fetch_(std::move(fetch)) {}

AtomReadAhead::~AtomReadAhead() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        pending_.reset();
    }
    changed_.notify_all();
    if (thread_) {
        thread_->join();
    }
}

void AtomReadAhead::ForgetParent() {
    // A child of fork() has none of its parent's threads: the fetch that was
    // under way never ends here. The thread's handle is let go rather than
    // joined (a few bytes, once per child), the callers read for themselves,
    // and a thread of this process is started when needed. The thread's wait
    // on `changed_` would block its destruction for ever: it is made anew
    // over the old one.
    (void)thread_.release();  // NOLINT(bugprone-unused-return-value)
    running_.reset();
    pending_.reset();
    dropRunning_ = false;
    new (&changed_) std::condition_variable();
}

void AtomReadAhead::Start(std::size_t index, const RecordRequest& request) {
    {
        std::lock_guard lock(mutex_);
        const auto is = [&](const std::optional<Job>& job) {
            return job && job->index == index && job->request == request;
        };
        if (is(pending_) || is(running_) || is(readyJob_)) {
            return;
        }
        pending_ = Job{index, request};
        // One atom ahead at most: what was fetched for another place goes.
        ready_.reset();
        readyJob_.reset();
        if (!thread_) {
            thread_ = std::make_unique<std::thread>([this] { Run(); });
            // Named at once, for whoever looks (ps, gdb) before it first runs.
            pthread_setname_np(thread_->native_handle(), kThreadName);
        }
    }
    changed_.notify_all();
}

std::optional<FetchedAtom> AtomReadAhead::Take(std::size_t index, const RecordRequest& request) {
    std::unique_lock lock(mutex_);
    if (pending_) {
        // Not begun: the caller reads it at once rather than wait for the
        // thread to wake, and a fetch for another place is not wanted.
        pending_.reset();
    }
    if (running_ && running_->index != index) {
        // The caller went elsewhere (a seek): the atom under way goes.
        dropRunning_ = true;
    }
    changed_.wait(lock, [&] { return !running_ || running_->index != index; });
    if (!readyJob_ || readyJob_->index != index) {
        // ...and so does one fetched ahead.
        ready_.reset();
        readyJob_.reset();
        return std::nullopt;
    }
    const bool same = readyJob_->request == request;
    std::optional<FetchedAtom> taken = std::move(ready_);
    ready_.reset();
    readyJob_.reset();
    if (!same) {
        return std::nullopt;
    }
    return taken;
}

void AtomReadAhead::Cancel() {
    std::unique_lock lock(mutex_);
    pending_.reset();
    ready_.reset();
    readyJob_.reset();
    if (running_) {
        dropRunning_ = true;
        changed_.wait(lock, [&] { return !running_; });
    }
}

void AtomReadAhead::Run() {
    KelCommon::concurrency::Thread::setCurrentThreadName(kThreadName);
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [&] { return stopping_ || pending_.has_value(); });
        if (stopping_) {
            return;
        }
        running_ = pending_;
        pending_.reset();
        dropRunning_ = false;
        const RecordRequest request = running_->request;
        lock.unlock();
        FetchedAtom fetched = fetch_(request);
        lock.lock();
        if (!dropRunning_ && !pending_) {
            readyJob_ = running_;
            ready_ = std::move(fetched);
        }
        running_.reset();
        lock.unlock();
        changed_.notify_all();
        // The atom is released, if it was dropped, outside the lock.
        fetched = {};
        lock.lock();
    }
}

}  // namespace KEL::container
