#pragma once

// A gate that threads stop at until the test opens it, so that a test can
// hold a thread at a chosen point and force an interleaving.

#include <KelCommon/Thread.h>

#include <condition_variable>
#include <mutex>
#include <string>
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

}  // namespace kel_test
