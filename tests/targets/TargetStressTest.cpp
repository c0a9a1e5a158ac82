#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/PurposeGuids.h>
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

namespace fs = std::filesystem;
using kel_test::Frames;
using kel_test::SetParam;

// Checks the files whose names start with `prefix`: every stream numbered
// 0, 1, ..., each atom a complete copy of a played frame (thumbnails aside),
// in the order played. With `wholeFrames`, the streams of one recording (a
// file, or the per-stream files "<name>_<stream>.kel") hold the same frames.
// Returns the number of atoms.
std::size_t CheckFiles(const fs::path& dir, const std::string& prefix, const Frames& frames, bool wholeFrames) {
    std::map<std::int64_t, std::size_t> played;  // time stamp: frame index
    for (std::size_t i = 0; i < frames.size(); ++i) {
        played[frames[i][0]->GetTimeStamp()] = i;
    }
    std::map<std::string, std::map<std::uint16_t, std::vector<std::size_t>>> recordings;
    std::size_t atoms = 0;
    for (const auto& entry : fs::directory_iterator(dir)) {
        const std::string name = entry.path().stem().string();
        if (!name.starts_with(prefix) || entry.path().extension() != ".kel") {
            continue;
        }
        auto& recording = recordings[name.substr(0, name.find('_'))];
        for (const auto& [stream, stored] : kel_test::ReadStreams(entry.path().string(), true)) {
            auto& indices = recording[stream];
            for (std::size_t i = 0; i < stored.size(); ++i) {
                stored[i]->RemoveDataLayers(KEL::PurposeGuid_THUMBNAIL, KEL::DataTypeTextureRGBA::TheTypeGuid());
                const auto frame = played.find(stored[i]->GetTimeStamp());
                if (frame == played.end()) {
                    ADD_FAILURE() << entry.path() << " atom " << i << " was never played";
                    continue;
                }
                EXPECT_EQ(stored[i]->GetFrameNr(), i) << entry.path();
                EXPECT_TRUE(indices.empty() || indices.back() < frame->second) << entry.path();
                std::string why;
                EXPECT_TRUE(kel_test::SameContent(*stored[i], *frames[frame->second][stream - 1], &why))
                    << entry.path() << " atom " << i << ": " << why;
                indices.push_back(frame->second);
                ++atoms;
            }
        }
    }
    for (const auto& [name, streams] : recordings) {
        for (const auto& [stream, indices] : streams) {
            EXPECT_TRUE(!wholeFrames || (streams.size() == 3 && indices == streams.begin()->second))
                << name << " stream " << stream;
        }
    }
    return atoms;
}

// Parameter changes and presses arrive from another thread while thousands of
// frames are written. Asynchronous targets write whole frames only; the
// synchronous snapshot counts atoms, so a press between a frame's atoms can
// split that frame.
TEST(TargetStress, ParameterChangesAndPressesFromAnotherThreadLeaveConsistentFiles) {
    kel_test::TempDir dir;
    constexpr std::uint32_t kFrames = 3000;
    const Frames frames = kel_test::MakeCompleteFrames({1, 2, 3}, kFrames, 0, 1, 4, 4);
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
    for (KEL::Filter* target : {basic, snapshots, syncSnapshots}) {
        SetParam(*target, "Write XML", "false");
    }

    std::atomic<bool> running{true};
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
            std::this_thread::yield();
        }
    });
    const KEL::RunResult result = run.Run();
    running = false;
    changer.join();
    EXPECT_EQ(result.framesDelivered, kFrames);
    const std::size_t atoms = CheckFiles(dir.Path(), "basic", frames, true) +
                              CheckFiles(dir.Path(), "snap", frames, true) +
                              CheckFiles(dir.Path(), "syncsnap", frames, false);
    EXPECT_GT(atoms, 0U);
}

}  // namespace
