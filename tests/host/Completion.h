#pragma once

// Runs a function on a thread of its own, so that a test can hold a call that
// blocks and wait, on a condition rather than a clock, for it to return.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace kel_test {

class Completion {
public:
    // Starts `body` at once. The destructor joins the thread, so `body` must
    // be able to return by then.
    explicit Completion(std::function<void()> body)
        : thread_([this, body = std::move(body)] {
              body();
              std::lock_guard lock(mutex_);
              done_ = true;
              cv_.notify_all();
          }) {}
    ~Completion() { thread_.join(); }
    Completion(const Completion&) = delete;
    Completion& operator=(const Completion&) = delete;

    bool Done() {
        std::lock_guard lock(mutex_);
        return done_;
    }
    // Waits at most `timeout` for `body` to return; true when it has. For
    // checking that a call is held: with the call held the answer is certain
    // (false); a call that is not held returns long before the time-out.
    bool WaitFor(std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, timeout, [this] { return done_; });
    }
    // Blocks until `body` has returned.
    void Wait() {
        std::unique_lock lock(mutex_);
        cv_.wait(lock, [this] { return done_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool done_ = false;
    std::thread thread_;
};

}  // namespace kel_test
