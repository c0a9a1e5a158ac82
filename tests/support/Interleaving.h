#pragma once

// Forcing interleavings: a gate that threads stop at until the test opens it,
// so that a test can hold a thread at a chosen point, and a function run on a
// thread of its own, so that a test can hold a call that blocks and wait, on a
// condition rather than a clock, for it to return; and a bounded wait for a
// forked child.

#include <KelCommon/Thread.h>
#include <sys/wait.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kel_test {

class Gate {
public:
    // Records the caller (and its thread name) and blocks until Open().
    void Pass() {
        std::unique_lock<std::mutex> lock(mutex_);
        ++entered_;
        names_.push_back(KelCommon::concurrency::Thread::getCurrentThreadName());
        cv_.notify_all();
        cv_.wait(lock, [this] { return open_; });
    }
    // Blocks until `count` threads have reached the gate.
    void WaitEntered(int count) {
        std::unique_lock<std::mutex> lock(mutex_);
        cv_.wait(lock, [&] { return entered_ >= count; });
    }
    void Open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        cv_.notify_all();
    }
    // The names of the threads that reached the gate, in order.
    std::vector<std::string> Names() {
        std::lock_guard<std::mutex> lock(mutex_);
        return names_;
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool open_ = false;
    int entered_ = 0;
    std::vector<std::string> names_;
};

class Completion {
public:
    // Starts `body` at once. The destructor waits for it, so `body` must be
    // able to return by then; an exception from it ends the test program.
    explicit Completion(std::function<void()> body) : done_(std::async(std::launch::async, std::move(body))) {}
    ~Completion() { done_.get(); }
    Completion(const Completion&) = delete;
    Completion& operator=(const Completion&) = delete;

    // True when `body` has not returned after 100 ms. For checking that a
    // call is held: with the call held the answer is certain (true); a call
    // that is not held returns long before.
    bool Held() { return done_.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready; }
    // Blocks until `body` has returned.
    void Wait() { done_.wait(); }

private:
    std::future<void> done_;
};

// Waits up to `limit` for the child process `pid` to end and returns its
// wait status; a child still running then is killed, and -1 returned.
inline int WaitForChild(pid_t pid, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    int status = 0;
    const auto end = std::chrono::steady_clock::now() + limit;
    while (::waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > end) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return status;
}

}  // namespace kel_test
