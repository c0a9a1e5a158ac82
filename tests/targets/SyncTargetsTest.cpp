#include <gtest/gtest.h>

#include <filesystem>
#include <list>
#include <thread>

#include "support/TestSupport.h"
#include "targets/TargetKEL2FilePerStreamSnapshotWriter.h"
#include "targets/TargetKEL2FilePerStreamSnapshotWriterAsync.h"
#include "targets/TargetKEL2FilePerStreamWriter.h"
#include "targets/TargetKEL2FilePerStreamWriterAsync.h"
#include "targets/TargetKEL2FileSnapshotWriter.h"
#include "targets/TargetKEL2FileSnapshotWriterAsync.h"
#include "targets/TargetKEL2FileWriter.h"
#include "targets/TargetKEL2FileWriterAsync.h"
#include "targets/TargetTestSupport.h"
#include "utils/ParameterNames.h"

namespace {

using kel_test::ExpectFileHoldsFrames;
using kel_test::Frames;
using kel_test::GraphRun;
using kel_test::ReadStreams;
using kel_test::SetParam;
using kel_test::TempDir;

// One writer strategy and its two target classes, "TargetKEL2File<name>"
// writing on the graph thread and "TargetKEL2File<name>Async" on a thread of
// its own.
struct TargetStrategy {
    const char* name;
    KEL::FilterCreator sync;
    KEL::FilterCreator async;
    bool snapshot;
    bool perStream;
};

class TargetRoundTrip : public ::testing::TestWithParam<TargetStrategy> {};

// Both targets of a strategy, recording from the first frame (the
// asynchronous one up to a natural end without dropping), write every frame
// whole, numbered from 0, into one file or one file per stream.
TEST_P(TargetRoundTrip, BothTargetsKeepEveryLayerOfEveryAtomAndNumberFramesFromZero) {
    const TargetStrategy& s = GetParam();
    TempDir dir;
    // Incoming frame numbers 100, 103, ... are written as 0, 1, ...
    const Frames frames = kel_test::MakeCompleteFrames({4, 9}, 6, 100, 3);
    GraphRun run({4, 9}, frames);
    const std::map<std::string, KEL::Filter*> targets = {{"sync", run.AddTarget(s.sync, "sync")},
                                                         {"async", run.AddTarget(s.async, "async")}};
    // "Write XML" is on and thumbnails are off by default: the synchronous
    // target switches thumbnails on, the asynchronous one XML off.
    kel_test::SetParam(*targets.at("sync"), Kel2File::kParamCreateThumbnail, "true");
    kel_test::SetParam(*targets.at("async"), Kel2File::kParamWriteXml, "false");
    kel_test::SetParam(*targets.at("async"), Kel2File::kParamDropWhenFull, "false");
    for (const auto& [name, target] : targets) {
        kel_test::SetParam(*target, Kel2File::kParamKelFilePath, dir.File(name + ".kel"));
        kel_test::SetParam(*target, s.snapshot ? Kel2File::kParamFramesPerSnapshot : Kel2File::kParamEnableRecording,
                           s.snapshot ? "6" : "true");
    }
    // Only the asynchronous target listens to frame-order resets, and only
    // while it plays.
    const std::list<KEL::IFrameOrderResetListener*> listening = {
        dynamic_cast<KEL::IFrameOrderResetListener*>(targets.at("async"))};
    // A pause and resume in mid-run: the resumed targets write on into the
    // files they started.
    std::thread resumer;
    KEL::RunOptions options;
    options.beforeFrame = [&](KEL::Graph& graph, std::uint32_t nr) {
        EXPECT_EQ(graph.GetFrameOrderResetListeners(), listening);
        for (const auto& [name, target] : targets) {
            if (s.snapshot && nr == 0) {
                kel_test::Press(*target, Kel2File::kParamTakeSnapshot);
            }
        }
        if (nr == 3) {
            graph.Pause();
            resumer = std::thread([&] {
                while (targets.at("async")->GetFilterState() != KEL::FILTER_STATE_PAUSED) {
                    std::this_thread::yield();
                }
                graph.Resume();
            });
        }
    };
    run.Run(options);
    resumer.join();
    EXPECT_TRUE(run.Graph().GetFrameOrderResetListeners().empty());
    for (const auto& [name, target] : targets) {
        for (std::size_t f = 0; f < (s.perStream ? 2 : 1); ++f) {
            const std::string file =
                dir.File(name + (s.perStream ? "_" + std::to_string(frames[0][f]->GetStreamId()) : "") + ".kel");
            Frames held = frames;
            for (auto& frame : held) {
                frame = s.perStream ? std::vector{frame[f]} : frame;
            }
            ExpectFileHoldsFrames(file, held);
            EXPECT_EQ(std::filesystem::exists(file + ".xml"), name == "sync");
            // As stored, only a stream's first atom carries its stream-level
            // layers and, when switched on, a thumbnail.
            for (const auto& atom : held[0]) {
                const auto stored = ReadStreams(file, false).at(atom->GetStreamId());
                EXPECT_EQ(kel_test::CountThumbnails(*stored[0]), name == "sync" ? 1U : 0U);
                EXPECT_EQ(stored[0]->GetNumDataLayers(),
                          atom->GetNumDataLayers() + kel_test::CountThumbnails(*stored[0]));
                EXPECT_LT(stored[1]->GetNumDataLayers(), atom->GetNumDataLayers());
                EXPECT_EQ(kel_test::CountThumbnails(*stored[1]), 0U);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    EveryStrategy, TargetRoundTrip,
    ::testing::Values(TargetStrategy{"Writer", &TargetKEL2FileWriterFilterCreator,
                                     &TargetKEL2FileWriterAsyncFilterCreator, false, false},
                      TargetStrategy{"SnapshotWriter", &TargetKEL2FileSnapshotWriterFilterCreator,
                                     &TargetKEL2FileSnapshotWriterAsyncFilterCreator, true, false},
                      TargetStrategy{"PerStreamWriter", &TargetKEL2FilePerStreamWriterFilterCreator,
                                     &TargetKEL2FilePerStreamWriterAsyncFilterCreator, false, true},
                      TargetStrategy{"PerStreamSnapshotWriter", &TargetKEL2FilePerStreamSnapshotWriterFilterCreator,
                                     &TargetKEL2FilePerStreamSnapshotWriterAsyncFilterCreator, true, true}),
    [](const auto& param) { return std::string(param.param.name); });

// Presses reach the strategy only while the target plays: one while paused
// is not counted.
TEST(SyncTargets, SnapshotPressWhilePausedIsNotCounted) {
    TempDir dir;
    std::unique_ptr<KEL::Filter> filter(TargetKEL2FileSnapshotWriterFilterCreator());
    auto& target = dynamic_cast<KEL::Target&>(*filter);
    kel_test::DirectDriver driver(target, {1});
    SetParam(target, Kel2File::kParamKelFilePath, dir.File("rec.kel"));
    driver.Initialize();
    driver.Play();
    target.SetFilterState(KEL::FILTER_STATE_PAUSED);
    kel_test::Press(target, Kel2File::kParamTakeSnapshot);
    target.SetFilterState(KEL::FILTER_STATE_PLAYING);
    EXPECT_EQ(driver.Deliver(kel_test::MakeCompleteFrames({1}, 1)[0]), 0U);
    driver.Stop();
    EXPECT_TRUE(ReadStreams(dir.File("rec.kel"), false).empty());
}

}  // namespace
