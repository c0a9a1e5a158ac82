#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "container/ForkGuard.h"
#include "container/RecordReader.h"

namespace KEL::container {

// Reads and decodes, on a thread of its own, the atom that sequential
// playback will ask for next, while the caller uses the one it has: the
// decompression of a compressed take then overlaps with the caller's work
// (the pieces of that atom still decode on every core of the WorkerPool).
//
// One atom at most is fetched ahead: a new Start replaces a fetch that was
// asked for and not yet taken. A caller that asks for the atom under way
// waits for it rather than reading it a second time; one that asks for
// another atom (a seek) reads it itself, never behind the fetch ahead, whose
// atom is dropped.
//
// The fetch only reads: whatever it finds (damage, a failed read) is handed
// to the caller with the atom, to be judged and recorded on the caller's
// thread as if the caller had read it.
//
// Start, Take and Cancel are called by one thread at a time (the reader's).
// In a child of fork() they work without the parent's thread: the fetch
// that was under way there is read by the caller.
class AtomReadAhead {
public:
    using Fetch = std::function<FetchedAtom(const RecordRequest&)>;

    // `fetch` runs on the read-ahead thread, which starts with the first
    // Start.
    explicit AtomReadAhead(Fetch fetch);
    // Waits for a fetch under way and drops what was fetched.
    ~AtomReadAhead();
    AtomReadAhead(const AtomReadAhead&) = delete;
    AtomReadAhead& operator=(const AtomReadAhead&) = delete;

    // Fetches the record `index` of `request` ahead, unless it is already
    // under way or fetched.
    void Start(std::size_t index, const RecordRequest& request);
    // The record `index` fetched ahead with this very request, waiting for it
    // while it is under way; empty when it was not started, not yet begun
    // (it then never is) or started with another request (a file that grew
    // since). Whatever else was asked for, under way or fetched is dropped.
    std::optional<FetchedAtom> Take(std::size_t index, const RecordRequest& request);
    // Drops what was asked for and fetched, and waits for a fetch under way:
    // afterwards the fetch function is not running and will not run until
    // the next Start (the file it reads may then be closed).
    void Cancel();

private:
    struct Job {
        std::size_t index = 0;
        RecordRequest request;
    };
    void Run();
    // In a child of fork(), under `mutex_`.
    void ForgetParent();

    Fetch fetch_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<Job> pending_;  // asked for, not begun
    std::optional<Job> running_;  // being fetched
    std::optional<Job> readyJob_;
    std::optional<FetchedAtom> ready_;
    // Set by Cancel while a fetch is under way: its result is dropped.
    bool dropRunning_ = false;
    bool stopping_ = false;
    std::unique_ptr<std::thread> thread_;
    ForkGuard forkGuard_{ForkGuard::Rank::kReadAhead, mutex_, [this] { ForgetParent(); }};
};

}  // namespace KEL::container
