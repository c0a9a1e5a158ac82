#include <KEL/DataTypeStreamInfo.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "support/TestSupport.h"
#include "targets/TargetKEL2FilePerStreamSnapshotWriterAsync.h"
#include "targets/TargetKEL2FileSnapshotWriter.h"
#include "targets/TargetKEL2FileWriterAsync.h"
#include "targets/TargetTestSupport.h"

namespace {

using kel_test::SetParam;

// Every file in `dir` opens, numbers each stream 0..n-1 and has a complete
// first atom. Returns the number of atoms seen.
std::size_t CheckEveryFile(const std::filesystem::path& dir) {
    std::size_t atoms = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        if (entry.path().extension() != ".kel") {
            continue;
        }
        for (const auto& [stream, stored] : kel_test::ReadStreams(entry.path().string(), false)) {
            for (std::size_t i = 0; i < stored.size(); ++i) {
                EXPECT_EQ(stored[i]->GetFrameNr(), i) << entry.path();
            }
            if (!stored.empty()) {
                EXPECT_NE(stored[0]->GetDataLayerByType(KEL::DataTypeStreamInfo::TheTypeGuid(), false), nullptr)
                    << entry.path();
            }
            atoms += stored.size();
        }
    }
    return atoms;
}

TEST(TargetStress, ParameterChangesAndPressesFromAnotherThreadDuringThousandsOfFrames) {
    kel_test::TempDir dir;
    constexpr std::uint32_t kFrames = 3000;
    const kel_test::Frames frames = kel_test::MakeCompleteFrames({1, 2, 3}, kFrames, 0, 1, 4, 4);
    kel_test::GraphRun run({1, 2, 3}, frames);
    KEL::Filter* basic = run.AddTarget(&TargetKEL2FileWriterAsyncFilterCreator, "basic");
    KEL::Filter* snapshots = run.AddTarget(&TargetKEL2FilePerStreamSnapshotWriterAsyncFilterCreator, "snapshots");
    KEL::Filter* syncSnapshots = run.AddTarget(&TargetKEL2FileSnapshotWriterFilterCreator, "sync");
    SetParam(*basic, "KEL File Path", dir.File("basic0.kel"));
    SetParam(*basic, "Enable Recording", "true");
    SetParam(*basic, "Buffer size", "3");
    SetParam(*snapshots, "KEL File Path", dir.File("snap0.kel"));
    SetParam(*snapshots, "Drop frames when full", "false");
    SetParam(*syncSnapshots, "KEL File Path", dir.File("syncsnap.kel"));
    SetParam(*basic, "Write XML", "false");
    SetParam(*snapshots, "Write XML", "false");

    std::atomic<bool> running{true};
    std::atomic<int> changes{0};
    std::thread changer([&] {
        for (int i = 0; running.load(); ++i) {
            switch (i % 7) {
                case 0:
                    SetParam(*basic, "Enable Recording", i % 2 == 0 ? "false" : "true");
                    break;
                case 1:
                    SetParam(*basic, "KEL File Path", dir.File("basic" + std::to_string(i % 3) + ".kel"));
                    break;
                case 2:
                    kel_test::Param<KEL::FilterParamCallback>(*snapshots, "Take snapshot")->Press();
                    kel_test::Param<KEL::FilterParamCallback>(*syncSnapshots, "Take snapshot")->Press();
                    break;
                case 3:
                    SetParam(*snapshots, "Frames count per snapshot", std::to_string(1 + i % 5));
                    break;
                case 4:
                    kel_test::Param<KEL::FilterParamCallback>(*basic, "Reset dropped frames counter")->Press();
                    break;
                case 5:
                    SetParam(*snapshots, "KEL File Path", dir.File("snap" + std::to_string(i % 2) + ".kel"));
                    break;
                default:
                    SetParam(*basic, "Create thumbnail for first frame", i % 2 == 0 ? "true" : "false");
                    break;
            }
            ++changes;
            std::this_thread::yield();
        }
    });
    const KEL::RunResult result = run.Run();
    running = false;
    changer.join();
    EXPECT_TRUE(result.Ok()) << result.message;
    EXPECT_EQ(result.framesDelivered, kFrames);
    EXPECT_GT(changes.load(), 0);
    EXPECT_GT(CheckEveryFile(dir.Path()), 0U);
}

}  // namespace
