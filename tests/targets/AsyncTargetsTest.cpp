#include <KEL/Graph.h>
#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "host/Completion.h"
#include "host/Gate.h"
#include "support/TestSupport.h"
#include "targets/TargetKEL2FileAsyncWriter.h"
#include "targets/TargetKEL2FileWriterAsync.h"
#include "targets/TargetTestSupport.h"
#include "writers/BasicWriter.h"

namespace {

using kel_test::Completion;
using kel_test::Frames;
using kel_test::Gate;
using kel_test::SetParam;
using kel_test::TempDir;

// A call that blocks is still running when WaitFor gives up; one that does
// not block returns long before.
constexpr std::chrono::milliseconds kHeld{100};

// A real writer strategy whose serialization first passes the gate.
template <class W>
class GatedWriter : public W {
public:
    Gate* gate = nullptr;

protected:
    KEL::KelErrorCode SerializeAtom(std::shared_ptr<KEL::Atom> atom) override {
        if (gate != nullptr) {
            gate->Pass();
        }
        return W::SerializeAtom(atom);
    }
};

class GatedAsyncWriter final : public Kel2File::TargetKEL2FileAsyncWriter<GatedWriter<Kel2File::BasicWriter>> {
public:
    KelCommon::Guid TypeGuid() const override {
        return KelCommon::Guid::FromHexString("6A3C1E2B-0D4F-4A5B-9C8D-7E6F5A4B3C2D");
    }
    KEL::FilterClassInfo GetFilterClassInfo() const override {
        return KEL::FilterClassInfo("GatedAsyncWriter", KEL::FILTER_CATEGORY_TARGET);
    }
};

// A gated BasicWriterAsync recording two streams into `file` of its own
// directory, driven directly. Frame 0 has been delivered and the writing
// thread holds it at the closed gate.
struct GatedFixture {
    GatedFixture(const std::string& bufferSize, bool dropWhenFull, const std::string& file = "rec.kel")
        : driver(target, {1, 2}), frames(kel_test::MakeCompleteFrames({1, 2}, 8)) {
        target.gate = &gate;
        SetParam(target, "KEL File Path", dir.File(file));
        SetParam(target, "Enable Recording", "true");
        SetParam(target, "Buffer size", bufferSize);
        SetParam(target, "Drop frames when full", dropWhenFull ? "true" : "false");
        driver.Initialize();
        driver.Play();
        EXPECT_EQ(driver.Deliver(frames[0]), 0U);
        gate.WaitEntered(1);
    }
    std::uint32_t Buffered() {
        return kel_test::Param<KEL::FilterParamUInt32>(target, "Buffered frames count")->GetValue();
    }
    std::int64_t Dropped() {
        return kel_test::Param<KEL::FilterParamInt64>(target, "Dropped frames count")->GetValue();
    }
    // The input ends; returns once IsDone() (the queue is empty), then
    // stops. Every atom went through the writing thread.
    void NaturalEnd() {
        target.SetInputFinished(true);
        while (!target.IsDone()) {
            std::this_thread::yield();
        }
        driver.Stop();
        for (const auto& name : gate.Names()) {
            EXPECT_EQ(name, "KEL2File_AsyncWriter");
        }
    }
    void OpenAndEnd() {
        gate.Open();
        NaturalEnd();
    }
    // Checks that `file` holds the frames at `indices`, renumbered from 0.
    void ExpectFileHolds(const std::string& file, std::initializer_list<std::size_t> indices) const {
        Frames picked;
        for (std::size_t i : indices) {
            picked.push_back(frames[i]);
        }
        kel_test::ExpectFileHoldsFrames(dir.File(file), picked);
    }

    TempDir dir;
    Gate gate;
    GatedAsyncWriter target;
    kel_test::DirectDriver driver;
    Frames frames;
};

TEST(AsyncTargets, FullQueueDropsCountsAndLogsEachFrame) {
    // A buffer size of 0 still gives a queue of one frame.
    for (const auto& [bufferSize, capacity] : {std::pair("0", 1U), std::pair("2", 2U)}) {
        SCOPED_TRACE(bufferSize);
        KelCommon::ScopedLogCapture log;
        GatedFixture f(bufferSize, true);
        for (std::size_t i = 1; i <= 5; ++i) {
            EXPECT_EQ(f.driver.Deliver(f.frames[i]), 0U);
            EXPECT_EQ(f.Dropped(), static_cast<std::int64_t>(i <= capacity ? 0 : i - capacity));
        }
        EXPECT_EQ(f.Buffered(), capacity);
        EXPECT_EQ(log.CountContaining("Dropping a frame since the buffer is full"), 5U - capacity);
        for (std::size_t i = capacity + 1; i <= 5; ++i) {
            const auto& first = f.frames[i][0];
            const std::string line =
                "Dropping a frame since the buffer is full (id: " + std::to_string(first->GetId()) +
                ", timestamp: " + std::to_string(first->GetTimeStamp()) + ")";
            EXPECT_EQ(log.Count(line), 1U) << line;
        }
        for (const auto& record : log.Records()) {
            if (record.message.find("Dropping a frame") == 0) {
                EXPECT_EQ(record.level, 4);
                EXPECT_EQ(record.tag, "KEL2File");
            }
        }
        f.OpenAndEnd();
        EXPECT_EQ(f.Dropped(), 0);  // a stop clears the run's count
        kel_test::ExpectFileHoldsFrames(f.dir.File("rec.kel"),
                                        Frames(f.frames.begin(), f.frames.begin() + capacity + 1));
    }
}

TEST(AsyncTargets, DroppedCountIsClearedByTheResetButtonWhilePlayingAndAtPlay) {
    GatedFixture f("1", true);
    for (std::size_t i = 1; i <= 3; ++i) {
        f.driver.Deliver(f.frames[i]);
    }
    ASSERT_EQ(f.Dropped(), 2);
    kel_test::Param<KEL::FilterParamCallback>(f.target, "Reset dropped frames counter")->Press();
    EXPECT_EQ(f.Dropped(), 0);
    f.driver.Deliver(f.frames[4]);
    EXPECT_EQ(f.Dropped(), 1);
    f.OpenAndEnd();
    kel_test::Param<KEL::FilterParamInt64>(f.target, "Dropped frames count")->SetValue(7);
    f.driver.Play();
    EXPECT_EQ(f.Dropped(), 0);
    f.driver.Stop();
}

TEST(AsyncTargets, WithoutDroppingTheGraphThreadWaitsForRoom) {
    GatedFixture f("1", false);
    EXPECT_EQ(f.driver.Deliver(f.frames[1]), 0U);
    // The queue is full and the writer held: this delivery cannot finish
    // until the gate opens.
    Completion blocked([&] { f.driver.Deliver(f.frames[2]); });
    EXPECT_FALSE(blocked.WaitFor(kHeld));
    f.gate.Open();
    blocked.Wait();
    f.NaturalEnd();
    EXPECT_EQ(f.Dropped(), 0);
    f.ExpectFileHolds("rec.kel", {0, 1, 2});
}

TEST(AsyncTargets, IsDoneStaysFalseWhileAFrameIsQueued) {
    GatedFixture f("4", false);
    f.driver.Deliver(f.frames[1]);
    f.target.SetInputFinished(true);
    EXPECT_FALSE(f.target.IsDone());
    f.OpenAndEnd();
    f.ExpectFileHolds("rec.kel", {0, 1});
}

TEST(AsyncTargets, PathChangeWritesQueuedFramesToTheOldFileFirst) {
    GatedFixture f("4", false, "a.kel");
    f.driver.Deliver(f.frames[1]);
    f.driver.Deliver(f.frames[2]);
    SetParam(f.target, "KEL File Path", f.dir.File("b.kel"));
    // The graph thread's update waits until the queue is written out.
    Completion update([&] { f.driver.PostUpdate(); });
    EXPECT_FALSE(update.WaitFor(kHeld));
    f.gate.Open();
    update.Wait();
    f.driver.Deliver(f.frames[3]);
    f.NaturalEnd();
    f.ExpectFileHolds("a.kel", {0, 1, 2});
    f.ExpectFileHolds("b.kel", {3});
}

TEST(AsyncTargets, StopDiscardsQueuedFramesAndFinishesTheFrameBeingWritten) {
    GatedFixture f("4", false);
    f.driver.Deliver(f.frames[1]);
    f.driver.Deliver(f.frames[2]);
    EXPECT_EQ(f.driver.Process(f.frames[3][0]), 0U);  // a partial frame
    ASSERT_EQ(f.Buffered(), 2U);
    Completion stop([&] { f.driver.Stop(); });
    // Once the stop has replaced the two queued frames by the exit token it
    // waits for the writing thread; only then let that thread go on.
    while (f.Buffered() != 1U) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(stop.WaitFor(kHeld));  // the frame being written is finished first
    f.gate.Open();
    stop.Wait();
    EXPECT_EQ(f.Buffered(), 0U);
    f.ExpectFileHolds("rec.kel", {0});
}

// Holds the writing thread the second time it passes one point of the
// queue's Pull: once it has claimed a frame's slot (before taking the frame),
// or once it has taken the frame out; tells when a flush is done.
enum class HoldPoint { kClaimed, kTaken };
template <HoldPoint At>
struct SecondPassHooks : KelCommon::NoQueueHooks {
    static inline std::atomic<int> passes{0};
    static inline std::atomic<Gate*> gate{nullptr};
    static inline std::atomic<Gate*> flushed{nullptr};
    static void Hold() {
        Gate* g = gate.load();
        if (++passes == 2 && g != nullptr) {
            g->Pass();
        }
    }
    static void AfterFilledSlotTaken() {
        if (At == HoldPoint::kClaimed) {
            Hold();
        }
    }
    static void AfterTaken() {
        if (At == HoldPoint::kTaken) {
            Hold();
        }
    }
    static void AfterFlush() {
        if (Gate* g = flushed.load()) {
            g->Pass();
        }
    }
};

template <class Hooks>
class HookedAsyncWriter final : public Kel2File::TargetKEL2FileAsyncWriter<Kel2File::BasicWriter, Hooks> {
public:
    KelCommon::Guid TypeGuid() const override {
        return KelCommon::Guid::FromHexString("3B1E7A52-6C0D-4E8F-A1B2-C3D4E5F60718");
    }
    KEL::FilterClassInfo GetFilterClassInfo() const override {
        return KEL::FilterClassInfo("HookedAsyncWriter", KEL::FILTER_CATEGORY_TARGET);
    }
};

// A hooked BasicWriterAsync recording two streams into rec.kel, playing, with
// the writing thread to be held at the second pass of the hook's point.
template <HoldPoint At>
struct HeldWriterRun {
    using Hooks = SecondPassHooks<At>;
    explicit HeldWriterRun(std::uint32_t frameCount) : frames(kel_test::MakeCompleteFrames({1, 2}, frameCount)) {
        SetParam(target, "KEL File Path", dir.File("rec.kel"));
        SetParam(target, "Enable Recording", "true");
        SetParam(target, "Buffer size", "4");
        SetParam(target, "Drop frames when full", "false");
        Hooks::passes = 0;
        Hooks::gate = &held;
        driver.Initialize();
        driver.Play();
    }
    ~HeldWriterRun() { Hooks::gate = nullptr; }
    // Stops the target; lets the held writing thread go on only once the stop
    // has begun (its flush is done), and returns when the stop has.
    void StopThenRelease() {
        Gate flushed;
        Hooks::flushed = &flushed;
        Completion stop([&] { driver.Stop(); });
        flushed.WaitEntered(1);
        flushed.Open();
        Hooks::flushed = nullptr;
        held.Open();
        stop.Wait();
    }

    TempDir dir;
    HookedAsyncWriter<Hooks> target;
    kel_test::DirectDriver driver{target, {1, 2}};
    Frames frames;
    Gate held;
};

TEST(AsyncTargets, StopLandingWhileTheWriterTakesAFrameWritesNothingAfterIt) {
    HeldWriterRun<HoldPoint::kClaimed> run(3);
    run.driver.Deliver(run.frames[0]);
    run.driver.Deliver(run.frames[1]);
    run.held.WaitEntered(1);  // frame 0 is written; the writer has claimed frame 1
    run.driver.Deliver(run.frames[2]);
    run.StopThenRelease();
    // Frame 1 was taken after the stop began: it goes with the discarded
    // frames, and frame 2 never takes its place.
    kel_test::ExpectFileHoldsFrames(run.dir.File("rec.kel"), {run.frames[0]});
}

// At a natural end the graph stops the target as soon as the queue is empty,
// which may be before the writing thread has begun to write the frame it took
// last: that frame is still finished.
TEST(AsyncTargets, NaturalEndFinishesTheFrameTakenLastWhenTheStopComesFirst) {
    HeldWriterRun<HoldPoint::kTaken> run(2);
    run.driver.Deliver(run.frames[0]);
    run.driver.Deliver(run.frames[1]);
    run.held.WaitEntered(1);  // frame 1 is out of the queue, not yet written
    run.target.SetInputFinished(true);
    ASSERT_TRUE(run.target.IsDone());
    run.StopThenRelease();
    kel_test::ExpectFileHoldsFrames(run.dir.File("rec.kel"), run.frames);
}

TEST(AsyncTargets, FrameOrderResetDiscardsQueuedAndPartialFrames) {
    GatedFixture f("4", false);
    f.driver.Deliver(f.frames[1]);
    EXPECT_EQ(f.driver.Process(f.frames[2][0]), 0U);
    f.target.OnFrameOrderReset();
    EXPECT_EQ(f.Buffered(), 1U);  // only the wake-up token
    f.driver.Deliver(f.frames[3]);
    f.OpenAndEnd();
    f.ExpectFileHolds("rec.kel", {0, 3});
}

TEST(AsyncTargets, ListensToFrameOrderResetsOnlyWhilePlaying) {
    TempDir dir;
    const Frames frames = kel_test::MakeCompleteFrames({1}, 3);
    kel_test::GraphRun run({1}, frames);
    KEL::Filter* target = run.AddTarget(&TargetKEL2FileWriterAsyncFilterCreator, "async");
    SetParam(*target, "KEL File Path", dir.File("rec.kel"));
    auto* listener = dynamic_cast<KEL::IFrameOrderResetListener*>(target);
    ASSERT_NE(listener, nullptr);
    bool registeredWhilePlaying = false;
    KEL::RunOptions options;
    options.beforeFrame = [&](KEL::Graph& graph, std::uint32_t) {
        const auto& listeners = graph.GetFrameOrderResetListeners();
        registeredWhilePlaying = std::count(listeners.begin(), listeners.end(), listener) == 1;
    };
    run.Run(options);
    EXPECT_TRUE(registeredWhilePlaying);
    EXPECT_TRUE(run.Graph().GetFrameOrderResetListeners().empty());
}

}  // namespace
