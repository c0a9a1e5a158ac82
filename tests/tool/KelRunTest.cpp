// `kel run` with graph files and timelines, and `kel demo`. The files the
// runs write are read back atom by atom: which frames of the synthetic source
// each stream holds is told by their time stamps.

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <numeric>
#include <thread>

#include "ToolTestSupport.h"

namespace {

using kel_tool_test::Contains;
using kel_tool_test::GraphJson;
using kel_tool_test::WriteText;
using Frames = std::vector<std::uint32_t>;

// The source frames first..last.
Frames Range(std::uint32_t first, std::uint32_t last) {
    Frames frames(last - first + 1);
    std::iota(frames.begin(), frames.end(), first);
    return frames;
}

class KelRun : public kel_tool_test::KelToolTest {
protected:
    // The synthetic source's frames that `stream` of the file `name` holds,
    // in stored order (frame n is stamped n/30 s after the source's start),
    // after checking that the file numbers them from 0 without gaps and that
    // every atom reads back.
    Frames Stored(const std::string& name, std::uint16_t stream) const {
        constexpr std::int64_t kStart = 1'700'000'000'000'000;
        const auto reader = kel_test::OpenContainer(File(name));
        const auto numbers = reader->GetFrameNumbers(stream);
        Frames frames;
        for (std::uint32_t i = 0; i < numbers.size(); ++i) {
            const auto atom = reader->GetFrameAtom(stream, numbers[i]);
            EXPECT_TRUE(atom && numbers[i] == i) << name << " frame " << i << " numbered " << numbers[i];
            frames.push_back(
                atom ? static_cast<std::uint32_t>(((atom->GetTimeStamp() - kStart) * 30 + 500'000) / 1'000'000)
                     : UINT32_MAX);
        }
        return frames;
    }
};

// The timeline example switches recording on before frame 10 and off before
// 30, and on again under a new name before 40: changes take effect between
// frames, so the takes hold frames 11-30 and 41-59. Snapshots act at once:
// frames 20-24 and 50-54.
// Overrides replace the file's parameters; events past the end never fire.
TEST_F(KelRun, ShippedTimelineExampleRunsAndTakesOverrides) {
    const std::string example = KEL_TOOL_EXAMPLES_DIR "/timeline-recording.json";
    const auto run = KelOk({"run", example});
    EXPECT_TRUE(Contains(run.out, {"Frames delivered: 60\n", "Timeline events:  5 fired\n"}));
    for (const std::uint16_t s : {0, 1}) {
        EXPECT_EQ(Stored("recordings/take1.kel", s), Range(11, 30));
        EXPECT_EQ(Stored("recordings/take2.kel", s), Range(41, 59));
        EXPECT_EQ(Stored("recordings/snapshots.kel", s), (Frames{20, 21, 22, 23, 24, 50, 51, 52, 53, 54}));
    }
    std::filesystem::remove_all(File("recordings"));
    const auto short_ = KelOk({"run", example, "--set", "cameras.Frames=25", "--set", "cameras.Include mesh=false",
                               "--set", "rec.Enable Recording=true", "--set", "rec.KEL File Path=o.kel"});
    EXPECT_TRUE(Contains(short_.out, {"Timeline events:  2 fired, 3 never reached"}));
    EXPECT_EQ(Stored("o.kel", 1), Range(0, 24));
    EXPECT_EQ(Stored("recordings/snapshots.kel", 1), Range(20, 24));
    EXPECT_FALSE(kel_test::OpenContainer(File("o.kel"))
                     ->GetFrameAtom(0, 3)
                     ->GetDataLayerByType(KEL::DataTypeMesh::TheTypeGuid(), false));
}

// Pass numbers count from 0: the press at frame 4 acts in every pass, the one
// at frame 6 in the third only. The stop is requested before frame 7 of the
// third pass is pushed; the graph checks for it before the next frame, so
// frame 7 is still delivered and written.
TEST_F(KelRun, LoopsRepeatTheTimelineEveryPassUntilAStopEndsTheRunAfterItsFrame) {
    WriteText(File("graph.json"),
              GraphJson(1, 10, 16, 16, "TargetKEL2FileSnapshotWriter",
                        R"("KEL File Path": "snaps.kel", "Write XML": false, "Frames count per snapshot": 2)",
                        R"("timeline": [{"frame": 4, "filter": "rec", "press": "Take snapshot"},
                        {"frame": 6, "pass": 2, "filter": "rec", "press": ["Take snapshot"]},
                        {"frame": 7, "pass": 2, "stop": true}], "options": {"loops": 3})"));
    EXPECT_TRUE(Contains(KelOk({"run", "graph.json"}).out,
                         {"Frames delivered: 28\n", "Stopped early:    yes", "Timeline events:  3 fired\n"}));
    EXPECT_EQ(Stored("snaps.kel", 0), (Frames{4, 5, 4, 5, 4, 5, 6, 7}));
}

constexpr const char* kRecordToRecKel = R"("KEL File Path": "rec.kel", "Write XML": false, "Enable Recording": true)";

TEST_F(KelRun, InterruptEndsALongRunAsANaturalEnd) {
    WriteText(File("graph.json"),
              GraphJson(2, 1'000'000, 16, 16, "TargetKEL2FileWriterAsync",
                        R"("KEL File Path": "rec.kel", "Write XML": false, "Enable Recording": true, )"
                        R"("Buffer size": 1000, "Drop frames when full": false)"));
    kel_tool_test::KelChild kel({"run", "graph.json"}, dir.Path().string());
    ASSERT_GT(kel.Pid(), 0);
    // The writer creates its file when the graph starts playing, after the
    // interrupt handler is in place. The minute only bounds a broken run.
    for (int i = 0; i < 30'000 && !Exists("rec.kel"); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ASSERT_TRUE(Exists("rec.kel"));
    ASSERT_EQ(kill(kel.Pid(), SIGINT), 0);
    const auto run = kel.Wait();
    EXPECT_EQ(run.exitCode, 130);
    // The first Ctrl-C ends the run between frames as a natural end does:
    // the asynchronous writer writes every frame it queued, the file is
    // closed with its index and holds the same whole frames of both cameras.
    EXPECT_TRUE(Contains(run.out, {"rec: 0 queued frame(s) discarded at stop\n"}));
    const auto delivered = run.out.find("Frames delivered: ");
    ASSERT_NE(delivered, std::string::npos);
    EXPECT_EQ(Stored("rec.kel", 0).size(), std::stoul(run.out.substr(delivered + 18)));
    EXPECT_TRUE(Contains(Kel({"verify", "rec.kel"}).out, {"rec.kel: OK"}));
    EXPECT_EQ(Stored("rec.kel", 0), Stored("rec.kel", 1));
}

// A writer that cannot write makes the run fail and names its file, also
// when it is an asynchronous target, whose writing thread has no way to
// report to the graph. Files over 64 KiB fail (RLIMIT_FSIZE, as a full disk);
// the frames acknowledged before are in the file.
TEST_F(KelRun, WriteFailureFailsTheRunAndNamesTheFileForEveryTarget) {
    for (const std::string target : {"TargetKEL2FileWriter", "TargetKEL2FileWriterAsync"}) {
        SCOPED_TRACE(target);
        const std::string noDrop = target.ends_with("Async") ? R"(, "Drop frames when full": false)" : "";
        WriteText(File("graph.json"), GraphJson(2, 30, 64, 64, target,
                                                R"("KEL File Path": "full.kel", "Enable Recording": true)" + noDrop));
        // The run stops after the frame in which writing failed; with
        // --keep-going it plays every frame.
        for (const bool keepGoing : {false, true}) {
            std::vector<std::string> args{"run", "graph.json", "--overwrite"};
            if (keepGoing) {
                args.emplace_back("--keep-going");
            }
            const auto run = Kel(args, std::uint64_t{64} * 1024);
            EXPECT_EQ(run.exitCode, 1) << run.err;
            EXPECT_TRUE(Contains(run.err, {"writing '" + File("full.kel") + "' failed", "File too large"}));
            if (!noDrop.empty()) {
                // (A synchronous writer's failure fails its hook, which ends
                // the run at that frame either way.)
                EXPECT_EQ(Contains(run.out, {"Frames delivered: 30\n"}), keepGoing) << run.out;
                EXPECT_EQ(Contains(run.out, {"Stopped early:    yes\n"}), !keepGoing) << run.out;
            }
            const auto stored = Stored("full.kel", 0);
            ASSERT_TRUE(!stored.empty() && stored.size() < 30U) << stored.size();
            EXPECT_EQ(stored, Range(0, static_cast<std::uint32_t>(stored.size() - 1)));
        }
    }
}

// Each way a graph fails to load, build or play: the file, a filter class,
// a parameter, a timeline value (the parser's own refusals are in
// GraphDescriptionTest).
TEST_F(KelRun, GraphErrorsFailTheRunAndSayWhere) {
    KelFails({"run", "absent.json"}, 1, "cannot open graph file");
    WriteText(File("graph.json"), GraphJson(1, 20, 16, 16, "NoSuchFilter", ""));
    KelFails({"run", "graph.json"}, 1, "filter class 'NoSuchFilter' is not registered");
    WriteText(File("graph.json"),
              GraphJson(1, 20, 16, 16, "TargetKEL2FileWriter", kRecordToRecKel,
                        R"("timeline": [{"frame": 3, "filter": "rec", "set": {"Enable Recording": "maybe"}}])"));
    KelFails({"run", "graph.json", "--set", "cams.Colour=red"}, 1, "has no parameter 'Colour'");
    KelFails({"run", "graph.json"}, 1, "timeline event at frame 3: cannot set 'Enable Recording'");
    // Names are checked before the first frame: nothing is written.
    WriteText(File("graph.json"),
              GraphJson(1, 20, 16, 16, "TargetKEL2FileSnapshotWriter", R"("KEL File Path": "snap.kel")",
                        R"("timeline": [{"frame": 15, "filter": "rec", "press": ["Take Snapshot"]}])"));
    KelFails({"run", "graph.json"}, 1, "timeline event at frame 15: filter 'rec' has no button 'Take Snapshot'");
    EXPECT_FALSE(Exists("snap.kel"));
}

// A run says which files it wrote, with what, and warns of a target that
// wrote none. Nothing that exists is replaced without --overwrite: not by a
// second run of a graph (even one that plays no frame), not by a per-stream
// writer, not by a conversion. The run does not start, names the file, and
// every file in the directory stays as it was.
TEST_F(KelRun, RunsListWhatTheyWroteAndReplaceFilesOnlyWithOverwrite) {
    WriteText(File("graph.json"), GraphJson(2, 5, 16, 16, "TargetKEL2FileWriter", kRecordToRecKel));
    const auto first = KelOk({"run", "graph.json"});
    EXPECT_TRUE(Contains(first.out, {"Wrote " + File("rec.kel") + ": 2 stream(s), 5 frame(s), 10 atom(s), "}));
    EXPECT_EQ(first.err, "");
    WriteText(File("idle.json"), GraphJson(2, 5, 16, 16, "TargetKEL2FileWriter", R"("KEL File Path": "idle.kel")"));
    EXPECT_TRUE(Contains(KelOk({"run", "idle.json"}).err, {"kel: warning: target 'rec' wrote no file"}));
    KelFails({"run", "graph.json", "--frames", "0"}, 1,
             "'" + File("rec.kel") + "' exists; nothing was written (pass --overwrite to replace)");
    WriteText(File("split.json"), GraphJson(2, 5, 16, 16, "TargetKEL2FilePerStreamWriter", kRecordToRecKel));
    WriteText(File("rec_1.kel"), "not mine to replace");
    KelFails({"run", "split.json"}, 1, "'" + File("rec_1.kel") + "' exists");
    KelFails({"copy", "rec.kel", "rec_1.kel"}, 1, "'" + File("rec_1.kel") + "' exists");
    KelOk({"run", "graph.json", "--overwrite", "--frames", "3"});
    EXPECT_EQ(Stored("rec.kel", 0), Range(0, 2));
}

// The demo says what its snapshot file holds, read from it: a recording
// shorter than the frame of the press takes no snapshot, and says so.
TEST_F(KelRun, DemoDescribesTheSnapshotItTook) {
    EXPECT_TRUE(Contains(
        KelOk({"demo", "--out", "d", "--frames", "20", "--streams", "1", "--width", "16", "--height", "16"}).out,
        {"snapshot.kel     empty: the recording ended before frame 30"}));
    const auto taken = Kel({"demo", "--out", "e", "--frames", "20", "--streams", "1", "--width", "16", "--height", "16",
                            "--snapshot-at", "5", "--snapshot-frames", "4"});
    EXPECT_TRUE(Contains(taken.out, {"snapshot.kel     4 frames taken at frame 5"}));
}

}  // namespace
