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

    // True when `body` has not returned after 100 ms. For checking that a
    // call is held: with the call held the answer is certain (true); a call
    // that is not held returns long before.
    bool Held() { return done_.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready; }
    // Blocks until `body` has returned.
    void Wait() { done_.wait(); }

private:
    std::future<void> done_;
};

}  // namespace kel_test
