#pragma once

// Runs a function on a thread of its own, so that a test can hold a call that
// blocks and wait, on a condition rather than a clock, for it to return.

#include <chrono>
#include <functional>
#include <future>

namespace kel_test {

class Completion {
public:
    // Starts `body` at once. The destructor waits for it, so `body` must be
    // able to return by then; an exception from it ends the test program.
    explicit Completion(std::function<void()> body) : done_(std::async(std::launch::async, std::move(body))) {}
    ~Completion() { done_.get(); }
    Completion(const Completion&) = delete;
    Completion& operator=(const Completion&) = delete;

    bool Done() { return WaitFor(std::chrono::milliseconds(0)); }
    // Waits at most `timeout` for `body` to return; true when it has. For
    // checking that a call is held: with the call held the answer is certain
    // (false); a call that is not held returns long before the time-out.
    bool WaitFor(std::chrono::milliseconds timeout) { return done_.wait_for(timeout) == std::future_status::ready; }
    // Blocks until `body` has returned.
    void Wait() { done_.wait(); }

private:
    std::future<void> done_;
};

}  // namespace kel_test
