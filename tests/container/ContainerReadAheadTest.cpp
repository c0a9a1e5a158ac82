// Decoding ahead during playback of a compressed take: the atom under way is
// waited for, never read twice; a seek never waits behind it; a reader that
// is closed or reopened waits for it; and playback gives the same atoms and
// the same damage as a reader that decodes each atom only when asked. A
// child of fork() uses and closes the read-ahead and the worker pool of its
// parent as its own.

#include <KEL/ReadKEL2File.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "container/AtomReadAhead.h"
#include "container/ContainerFiles.h"
#include "container/ContainerFormat.h"
#include "container/ForkGuard.h"
#include "container/WorkerPool.h"
#include "support/Interleaving.h"

// ThreadSanitizer does not follow the child of a fork() from a process with
// threads: it dies when the child starts a thread, and reports the parent's
// threads as leaked when the child exits.
#if defined(__SANITIZE_THREAD__)
#define KEL_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KEL_UNDER_TSAN 1
#endif
#endif

namespace {

using KEL::container::AtomReadAhead;
using KEL::container::FetchedAtom;
using KEL::container::RecordRequest;

// A fetch that stops at a gate before it returns, and says which record it
// fetched.
struct GatedFetch {
    kel_test::Gate gate;
    std::atomic<int> calls{0};
    std::atomic<bool> returned{false};

    AtomReadAhead::Fetch Function() {
        return [this](const RecordRequest& request) {
            ++calls;
            gate.Pass();
            FetchedAtom fetched;
            fetched.reason = "record at " + std::to_string(request.offset);
            returned = true;
            return fetched;
        };
    }
};

RecordRequest At(std::uint64_t offset) { return {offset, 100, 1U << 20, true}; }

TEST(AtomReadAhead, TheAtomUnderWayIsWaitedForAndFetchedOnce) {
    GatedFetch fetch;
    AtomReadAhead ahead(fetch.Function());
    ahead.Start(5, At(500));
    fetch.gate.WaitEntered(1);
    std::optional<FetchedAtom> taken;
    {
        kel_test::Completion take([&] { taken = ahead.Take(5, At(500)); });
        EXPECT_TRUE(take.Held());
        fetch.gate.Open();
    }
    ASSERT_TRUE(taken);
    EXPECT_EQ(taken->reason, "record at 500");
    EXPECT_EQ(fetch.calls, 1);
    // Taken once: asking again finds nothing.
    EXPECT_FALSE(ahead.Take(5, At(500)));
}

// A fetch for another place (a seek) neither waits for the one under way
// nor keeps its result: one atom ahead at most.
TEST(AtomReadAhead, ASeekNeitherWaitsNorKeepsTheAtomAhead) {
    GatedFetch fetch;
    AtomReadAhead ahead(fetch.Function());
    ahead.Start(5, At(500));
    fetch.gate.WaitEntered(1);
    EXPECT_FALSE(ahead.Take(9, At(900)));  // returns with the gate still closed
    fetch.gate.Open();
    EXPECT_FALSE(ahead.Take(5, At(500)));  // dropped by the seek: waits for its end and finds nothing
    EXPECT_EQ(fetch.calls, 1);

    ahead.Start(10, At(1000));
    fetch.gate.WaitEntered(2);  // under way, not merely asked for
    EXPECT_EQ(ahead.Take(10, At(1000))->reason, "record at 1000");

    // A record asked for with another request (the file grew since) is
    // fetched again by the caller.
    ahead.Start(11, At(1100));
    fetch.gate.WaitEntered(3);
    EXPECT_FALSE(ahead.Take(11, {1100, 200, 1U << 20, true}));
    EXPECT_EQ(fetch.calls, 3);
}

// Cancel (a reader reopening its file) and the destructor (a reader closed)
// return only once the fetch under way has returned.
TEST(AtomReadAhead, CancelAndCloseWaitForTheFetchUnderWay) {
    for (const bool close : {false, true}) {
        SCOPED_TRACE(close ? "destructor" : "cancel");
        GatedFetch fetch;
        auto ahead = std::make_unique<AtomReadAhead>(fetch.Function());
        ahead->Start(5, At(500));
        fetch.gate.WaitEntered(1);
        {
            kel_test::Completion stop([&] {
                if (close) {
                    ahead.reset();
                } else {
                    ahead->Cancel();
                }
                EXPECT_TRUE(fetch.returned);
            });
            EXPECT_TRUE(stop.Held());
            fetch.gate.Open();
        }
        if (!close) {
            EXPECT_FALSE(ahead->Take(5, At(500)));
        }
    }
}

// A child of fork() has none of its parent's threads: the fetch under way
// when it forked is read by the caller there, and neither Take, Cancel nor
// closing waits for it.
TEST(AtomReadAhead, AForkedChildDoesNotWaitForItsParentsThread) {
    GatedFetch fetch;
    AtomReadAhead ahead(fetch.Function());
    ahead.Start(5, At(500));
    fetch.gate.WaitEntered(1);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const bool missed = !ahead.Take(5, At(500));
        ahead.Cancel();
        ahead.~AtomReadAhead();
        ::_exit(missed ? 0 : 3);
    }
    const int status = kel_test::WaitForChild(child);
    EXPECT_NE(status, -1) << "the child hangs";
    fetch.gate.Open();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    EXPECT_EQ(ahead.Take(5, At(500))->reason, "record at 500");
}

// The threads of this process named `name`, with their states (R, S, ...).
std::vector<char> ThreadStates(const std::string& name) {
    std::vector<char> states;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string taskName;
        std::getline(comm, taskName);
        if (taskName != name) {
            continue;
        }
        std::ifstream stat(task.path() / "stat");
        std::string line;
        std::getline(stat, line);
        const std::size_t end = line.rfind(')');
        states.push_back(end != std::string::npos && end + 2 < line.size() ? line[end + 2] : '?');
    }
    return states;
}

int ReadAheadThreads() { return static_cast<int>(ThreadStates("kel-read-ahead").size()); }

// Waits until every thread named `name` sleeps: the threads of the pool and
// of a read-ahead with nothing to do then wait for work.
bool WaitAsleep(const std::string& name) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
        const auto states = ThreadStates(name);
        if (!states.empty() && std::all_of(states.begin(), states.end(), [](char c) { return c == 'S'; })) {
            return true;
        }
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// A fork waits for a guarded mutex that another thread holds, and the child
// finds it free: the thread holds it until the fork is seen waiting for it.
TEST(ForkGuard, AForkWaitsForAGuardedMutexAndTheChildFindsItFree) {
#ifdef KEL_UNDER_TSAN
    GTEST_SKIP() << "ThreadSanitizer does not follow a child of a fork() from a process with threads";
#endif
    std::mutex guarded;
    const KEL::container::ForkGuard guard(KEL::container::ForkGuard::Rank::kBufferPool, guarded);
    static std::mutex signalMutex;
    static std::condition_variable signal;
    static bool forkWaits;
    static bool forkReturned;
    forkWaits = false;
    forkReturned = false;
    KEL::container::ForkGuard::SetWaitHook([] {
        const std::lock_guard lock(signalMutex);
        forkWaits = true;
        signal.notify_all();
    });
    kel_test::Gate held;
    std::thread holder([&] {
        const std::lock_guard hold(guarded);
        std::unique_lock lock(signalMutex);
        held.Open();
        signal.wait(lock, [] { return forkWaits || forkReturned; });
    });
    held.Pass();
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(guarded.try_lock() ? 0 : 3);
    }
    {
        const std::lock_guard lock(signalMutex);
        forkReturned = true;
        signal.notify_all();
    }
    holder.join();
    KEL::container::ForkGuard::SetWaitHook(nullptr);
    ASSERT_GE(child, 0);
    EXPECT_TRUE(forkWaits);
    const int status = kel_test::WaitForChild(child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child found the mutex held: " << status;
}

// The parent's pool workers and read-ahead thread wait for work when it
// forks. The child starts threads of its own for both, and closes both,
// which must not wait for the parent's threads.
TEST(Fork, AChildUsesAndClosesThePoolAndReadAheadItsParentsThreadsWaitIn) {
#ifdef KEL_UNDER_TSAN
    GTEST_SKIP() << "ThreadSanitizer does not follow a child of a fork() from a process with threads";
#endif
    auto pool = std::make_unique<KEL::container::WorkerPool>(1);
    pool->ParallelFor(2, [](std::size_t) {});
    GatedFetch fetch;
    fetch.gate.Open();
    auto ahead = std::make_unique<AtomReadAhead>(fetch.Function());
    ahead->Start(1, At(100));
    fetch.gate.WaitEntered(1);
    ASSERT_TRUE(ahead->Take(1, At(100)));
    ASSERT_TRUE(WaitAsleep("kel-codec"));
    ASSERT_TRUE(WaitAsleep("kel-read-ahead"));
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The first piece waits (10 s at most) for a piece on another thread.
        std::mutex mutex;
        std::condition_variable other;
        std::set<std::thread::id> threads;
        pool->ParallelFor(4, [&](std::size_t i) {
            std::unique_lock lock(mutex);
            threads.insert(std::this_thread::get_id());
            other.notify_all();
            if (i == 0) {
                other.wait_for(lock, std::chrono::seconds(10), [&] { return threads.size() > 1; });
            }
        });
        const bool poolWorks = threads.size() == 2 && pool->Threads() == 1;
        ahead->Start(2, At(200));
        const bool aheadStarts = ReadAheadThreads() == 1;
        ahead.reset();
        pool.reset();
        ::_exit((poolWorks ? 0 : 1) | (aheadStarts ? 0 : 2));
    }
    const int status = kel_test::WaitForChild(child);
    EXPECT_NE(status, -1) << "the child hangs";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

// Generated takes (streams, frames, sizes, damaged records, closed or not)
// played by generated access (runs forward through the file or one stream,
// seeks back and ahead) with and without decoding ahead: the same atoms,
// equal to those written, and the same damage.
TEST(DecodeAhead, PlaybackGivesTheAtomsAndDamageOfAReaderThatDoesNotDecodeAhead) {
    kel_test::TempDir dir;
    std::mt19937_64 random(20261124);
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(round);
        const std::string path = dir.File("take" + std::to_string(round) + ".kel");
        const auto streams = static_cast<std::uint16_t>(1 + random() % 3);
        const auto frames = static_cast<std::uint32_t>(4 + random() % 12);
        std::vector<KEL::AtomPtr> atoms;
        for (std::uint32_t f = 0; f < frames; ++f) {
            for (std::uint16_t s = 0; s < streams; ++s) {
                atoms.push_back(kel_test::MakeFrameAtom(s, f, 16 + random() % 64, 16 + random() % 64));
            }
        }
        const bool close = random() % 4 != 0;
        const auto ends = kel_test::WriteContainer(path, atoms, close, {KEL::CompressionCodec::kZstd, 1});
        for (std::uint64_t k = random() % 3; k > 0; --k) {
            const std::size_t i = random() % atoms.size();
            const std::uint64_t start = i == 0 ? KEL::container::kFirstRecordOffset : ends[i - 1];
            kel_test::FlipByte(path, start + 64 + random() % (ends[i] - start - 64));
        }

        auto ahead = kel_test::OpenContainer(path, KEL::KEL_OK, {.logDamage = false});
        auto plain = kel_test::OpenContainer(path, KEL::KEL_OK, {.logDamage = false, .decodeAhead = false});
        ASSERT_EQ(ahead->GetNumAtoms(), plain->GetNumAtoms());
        const std::uint64_t count = plain->GetNumAtoms();
        const auto compare = [&](const KEL::AtomPtr& a, const KEL::AtomPtr& b) {
            ASSERT_EQ(a != nullptr, b != nullptr);
            if (a) {
                std::string why;
                EXPECT_TRUE(kel_test::AtomsEqual(*a, *b, &why)) << why;
                const auto& written = atoms[a->GetFrameNr() * streams + a->GetStreamId()];
                EXPECT_TRUE(kel_test::AtomsEqual(*written, *a, &why)) << why;
            }
        };
        for (int step = 0; step < 60; ++step) {
            if (random() % 2 == 0) {
                std::uint64_t at = random() % count;
                for (std::uint64_t n = 1 + random() % 8; n > 0 && at < count; --n, ++at) {
                    compare(ahead->GetAtomAt(at), plain->GetAtomAt(at));
                }
            } else {
                const auto s = static_cast<std::uint16_t>(random() % streams);
                std::uint32_t f = random() % frames;
                for (std::uint32_t n = 1 + random() % 6; n > 0 && f < frames; --n, ++f) {
                    compare(ahead->GetFrameAtom(s, f), plain->GetFrameAtom(s, f));
                }
            }
        }
        for (std::uint64_t at = 0; at < count; ++at) {
            compare(ahead->GetAtomAt(at), plain->GetAtomAt(at));
        }
        EXPECT_GE(ReadAheadThreads(), count >= 6 ? 1 : 0);
        const auto lostAhead = ahead->GetDamage();
        const auto lostPlain = plain->GetDamage();
        ASSERT_EQ(lostAhead.size(), lostPlain.size());
        for (std::size_t i = 0; i < lostAhead.size(); ++i) {
            EXPECT_EQ(lostAhead[i].offset, lostPlain[i].offset);
            EXPECT_EQ(lostAhead[i].reason, lostPlain[i].reason);
        }
        EXPECT_EQ(ahead->GetDamageReport().skippedRecords, plain->GetDamageReport().skippedRecords);
        EXPECT_EQ(ahead->GetDamageReport().validRecords, plain->GetDamageReport().validRecords);
        ahead.reset();
        EXPECT_EQ(ReadAheadThreads(), 0);
    }

    // A take without compression is read on the caller's thread alone.
    const std::string raw = dir.File("raw.kel");
    kel_test::WriteContainer(raw, kel_test::SmallAtoms(0, 8, 32));
    auto reader = kel_test::OpenContainer(raw);
    for (std::uint64_t at = 0; at < 8; ++at) {
        EXPECT_TRUE(reader->GetAtomAt(at));
    }
    EXPECT_EQ(ReadAheadThreads(), 0);
}

}  // namespace
