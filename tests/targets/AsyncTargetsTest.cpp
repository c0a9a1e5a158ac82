#include <KelCommon/Logger.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <type_traits>

#include "support/Interleaving.h"
#include "support/TestSupport.h"
#include "targets/TargetKEL2FileAsyncWriter.h"
#include "targets/TargetKEL2FileWriterAsync.h"
#include "targets/TargetTestSupport.h"
#include "utils/ParameterNames.h"
#include "writers/BasicWriter.h"
#include "writers/SnapshotWriter.h"

namespace {

using kel_test::Completion;
using kel_test::Frames;
using kel_test::Gate;
using kel_test::SetParam;
using kel_test::TempDir;

// Holds the writing thread at the gate the first time, after Arm, that it
// passes one point of the queue's Pull: once it has claimed a frame's slot
// (before taking the frame), or once it has taken the frame out. Tells when a
// flush is done.
enum class HoldPoint { kClaimed, kTaken };
struct HoldHooks : KelCommon::NoQueueHooks {
    static inline std::atomic<HoldPoint> at{HoldPoint::kTaken};
    static inline std::atomic<Gate*> gate{nullptr};
    static inline std::atomic<Gate*> flushed{nullptr};
    static void Arm(Gate* g, HoldPoint point) {
        at = point;
        gate = g;
    }
    static void Hold(HoldPoint point) {
        if (Gate* g = point == at ? gate.exchange(nullptr) : nullptr) {
            g->Pass();
        }
    }
    static void AfterFilledSlotTaken() { Hold(HoldPoint::kClaimed); }
    static void AfterTaken() { Hold(HoldPoint::kTaken); }
    static void AfterFlush() {
        if (Gate* g = flushed.load()) {
            g->Pass();
        }
    }
};

template <class W>
class HookedAsyncWriter final : public Kel2File::TargetKEL2FileAsyncWriter<W, HoldHooks> {
public:
    KelCommon::Guid TypeGuid() const override {
        return KelCommon::Guid::FromHexString("6A3C1E2B-0D4F-4A5B-9C8D-7E6F5A4B3C2D");
    }
    KEL::FilterClassInfo GetFilterClassInfo() const override {
        return KEL::FilterClassInfo("HookedAsyncWriter", KEL::FILTER_CATEGORY_TARGET);
    }
};

// A hooked asynchronous target of strategy W recording two streams into
// `file` of its own directory, driven directly: a basic writer records, a
// snapshot writer has been pressed for one frame. Frame 0 has been delivered
// and the writing thread, having taken it, is held at the closed gate.
template <class W = Kel2File::BasicWriter>
struct GatedFixture {
    static constexpr bool kSnapshot = std::is_same_v<W, Kel2File::SnapshotWriter>;
    GatedFixture(const std::string& bufferSize, bool dropWhenFull, const std::string& file = "rec.kel")
        : driver(target, {1, 2}), frames(kel_test::MakeCompleteFrames({1, 2}, 8)) {
        SetParam(target, Kel2File::kParamKelFilePath, dir.File(file));
        SetParam(target, kSnapshot ? Kel2File::kParamFramesPerSnapshot : Kel2File::kParamEnableRecording,
                 kSnapshot ? "1" : "true");
        SetParam(target, Kel2File::kParamBufferSize, bufferSize);
        SetParam(target, Kel2File::kParamDropWhenFull, dropWhenFull ? "true" : "false");
        driver.Initialize();
        driver.Play();
        if (kSnapshot) {
            kel_test::Press(target, Kel2File::kParamTakeSnapshot);
        }
        HoldHooks::Arm(&gate, HoldPoint::kTaken);
        EXPECT_EQ(driver.Deliver(frames[0]), 0U);
        gate.WaitEntered(1);
        EXPECT_EQ(gate.Names(), std::vector<std::string>{"KEL2File_AsyncWriter"});
    }
    ~GatedFixture() { HoldHooks::gate = nullptr; }
    std::uint32_t Buffered() {
        return kel_test::Param<KEL::FilterParamUInt32>(target, Kel2File::kParamBufferedFrames)->GetValue();
    }
    std::int64_t Dropped() {
        return kel_test::Param<KEL::FilterParamInt64>(target, Kel2File::kParamDroppedFrames)->GetValue();
    }
    // The input ends; returns once IsDone() (the queue is empty), then stops.
    void NaturalEnd() {
        target.SetInputFinished(true);
        while (!target.IsDone()) {
            std::this_thread::yield();
        }
        driver.Stop();
    }
    // Frame 1 is queued, and the writing thread, released from frame 0, is
    // held again at `point` of frame 1.
    void HoldWriterOnFrame1At(HoldPoint point) {
        driver.Deliver(frames[1]);
        HoldHooks::Arm(&held, point);
        gate.Open();
        held.WaitEntered(1);
    }
    void OpenAndEnd() {
        gate.Open();
        NaturalEnd();
    }
    // Stops the target; lets the writing thread held at `held` (see Arm) go
    // on only once the stop has begun (its flush is done), and returns when
    // the stop has.
    void StopThenRelease() {
        Gate flushed;
        HoldHooks::flushed = &flushed;
        Completion stop([&] { driver.Stop(); });
        flushed.WaitEntered(1);
        flushed.Open();
        HoldHooks::flushed = nullptr;
        held.Open();
        stop.Wait();
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
    Gate held;
    HookedAsyncWriter<W> target;
    kel_test::DirectDriver driver;
    Frames frames;
};

// Frames that find the queue full are dropped, counted and logged one by
// one; "Reset dropped frames counter", a stop and a play clear the count.
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
        kel_test::Press(f.target, Kel2File::kParamResetDropped);
        EXPECT_EQ(f.Dropped(), 0);
        f.driver.Deliver(f.frames[6]);
        EXPECT_EQ(f.Dropped(), 1);
        EXPECT_EQ(log.CountContaining("Dropping a frame since the buffer is full"), 6U - capacity);
        for (std::size_t i = capacity + 1; i <= 6; ++i) {
            const auto& first = f.frames[i][0];
            const std::string line =
                "Dropping a frame since the buffer is full (id: " + std::to_string(first->GetId()) +
                ", timestamp: " + std::to_string(first->GetTimeStamp()) + ")";
            EXPECT_EQ(log.Count(line), 1U) << line;
        }
        // Queued frames keep the target from being done.
        f.target.SetInputFinished(true);
        EXPECT_FALSE(f.target.IsDone());
        f.OpenAndEnd();
        EXPECT_EQ(f.Dropped(), 0);
        kel_test::ExpectFileHoldsFrames(f.dir.File("rec.kel"),
                                        Frames(f.frames.begin(), f.frames.begin() + capacity + 1));
        kel_test::Param<KEL::FilterParamInt64>(f.target, Kel2File::kParamDroppedFrames)->SetValue(7);
        f.driver.Play();
        EXPECT_EQ(f.Dropped(), 0);
        f.driver.Stop();
    }
}

TEST(AsyncTargets, WithoutDroppingTheGraphThreadWaitsForRoom) {
    GatedFixture f("1", false);
    EXPECT_EQ(f.driver.Deliver(f.frames[1]), 0U);
    // The queue is full and the writer held: this delivery cannot finish
    // until the gate opens.
    Completion blocked([&] { f.driver.Deliver(f.frames[2]); });
    EXPECT_TRUE(blocked.Held());
    f.gate.Open();
    blocked.Wait();
    f.NaturalEnd();
    EXPECT_EQ(f.Dropped(), 0);
    f.ExpectFileHolds("rec.kel", {0, 1, 2});
}

TEST(AsyncTargets, PathChangeWritesQueuedFramesToTheOldFileFirst) {
    GatedFixture f("4", false, "a.kel");
    f.driver.Deliver(f.frames[1]);
    f.driver.Deliver(f.frames[2]);
    SetParam(f.target, Kel2File::kParamKelFilePath, f.dir.File("b.kel"));
    // The graph thread's update waits until the queue is written out.
    Completion update([&] { f.driver.PostUpdate(); });
    EXPECT_TRUE(update.Held());
    f.gate.Open();
    update.Wait();
    f.driver.Deliver(f.frames[3]);
    f.NaturalEnd();
    f.ExpectFileHolds("a.kel", {0, 1, 2});
    f.ExpectFileHolds("b.kel", {3});
}

TEST(AsyncTargets, StopDiscardsQueuedAndPartialFramesAndFinishesTheFrameTaken) {
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
    EXPECT_TRUE(stop.Held());  // the frame taken is finished first
    f.gate.Open();
    stop.Wait();
    EXPECT_EQ(f.Buffered(), 0U);
    f.ExpectFileHolds("rec.kel", {0});
    // The partial frame is gone too: the next play records whole frames.
    f.driver.Play();
    f.driver.Deliver(f.frames[4]);
    f.NaturalEnd();
    f.ExpectFileHolds("rec.kel", {4});
}

TEST(AsyncTargets, StopLandingWhileTheWriterTakesAFrameWritesNothingAfterIt) {
    GatedFixture f("4", false);
    f.HoldWriterOnFrame1At(HoldPoint::kClaimed);  // frame 0 is written; frame 1 is claimed
    f.driver.Deliver(f.frames[2]);
    f.StopThenRelease();
    // Frame 1 was taken after the stop began: it goes with the discarded
    // frames, and frame 2 never takes its place.
    f.ExpectFileHolds("rec.kel", {0});
}

// At a natural end the graph stops the target as soon as the queue is empty,
// which may be before the writing thread has begun to write the frame it took
// last: that frame is still finished.
TEST(AsyncTargets, NaturalEndFinishesTheFrameTakenLastWhenTheStopComesFirst) {
    GatedFixture f("4", false);
    f.HoldWriterOnFrame1At(HoldPoint::kTaken);  // frame 1 is out of the queue, not yet written
    f.target.SetInputFinished(true);
    ASSERT_TRUE(f.target.IsDone());
    f.StopThenRelease();
    f.ExpectFileHolds("rec.kel", {0, 1});
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

// "Take snapshot" pressed on a thread of its own while the writing thread
// holds a frame it took: nothing orders the press against the frame's writes,
// so the budget both change is touched concurrently (ThreadSanitizer reports
// it unless it is atomic). The press adds to what is left: one more frame is
// written.
TEST(AsyncTargets, SnapshotPressOnAnotherThreadWhileTheWriterHoldsAFrameAddsToTheBudget) {
    GatedFixture<Kel2File::SnapshotWriter> f("4", false);
    {
        Completion press([&] { kel_test::Press(f.target, Kel2File::kParamTakeSnapshot); });
        f.gate.Open();
    }
    f.driver.Deliver(f.frames[1]);
    f.driver.Deliver(f.frames[2]);
    f.NaturalEnd();
    f.ExpectFileHolds("rec.kel", {0, 1});
}

// A source that tells how many streams it has but not their ids gives an
// asynchronous writer complete frames all the same; a source that tells
// neither is refused before the first frame, by name.
TEST(AsyncTargets, FramesAreCompleteWhenTheSourceCountsItsStreamsWithoutListingThem) {
    TempDir dir;
    const Frames frames = kel_test::MakeCompleteFrames({3, 5}, 6);
    for (const auto listing : {kel_test::StreamListing::kCountOnly, kel_test::StreamListing::kNothing}) {
        kel_test::GraphRun run({3, 5}, frames, listing);
        KEL::Filter* target = run.AddTarget(&TargetKEL2FileWriterAsyncFilterCreator, "out");
        SetParam(*target, Kel2File::kParamKelFilePath, dir.File("counted.kel"));
        SetParam(*target, Kel2File::kParamEnableRecording, "true");
        SetParam(*target, Kel2File::kParamDropWhenFull, "false");
        if (listing == kel_test::StreamListing::kCountOnly) {
            ASSERT_TRUE(run.Run().Ok());
            kel_test::ExpectFileHoldsFrames(dir.File("counted.kel"), frames);
        } else {
            std::string error;
            EXPECT_EQ(run.Graph().Initialize(&error), KEL::KEL_ERR_GRAPH);
            EXPECT_NE(error.find("source 'source' names no output streams"), std::string::npos) << error;
        }
    }
}

}  // namespace
