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

using kel_tool_test::WriteText;
using KelDemo = kel_tool_test::KelToolTest;
using Frames = std::vector<std::uint32_t>;

// The source frames first..last.
Frames Range(std::uint32_t first, std::uint32_t last) {
    Frames frames(last - first + 1);
    std::iota(frames.begin(), frames.end(), first);
    return frames;
}

Frames operator+(Frames a, const Frames& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The synthetic source's frames that `stream` of the file at `path` holds,
// in stored order (frame n is stamped n/30 s after the source's start), after
// checking that the file numbers them from 0 without gaps and that every atom
// reads back.
Frames SourceFrames(const std::string& path, std::uint16_t stream) {
    constexpr std::int64_t kStart = 1'700'000'000'000'000;
    const auto reader = kel_tool_test::Open(path);
    const auto numbers = reader->GetFrameNumbers(stream);
    Frames frames;
    for (std::uint32_t i = 0; i < numbers.size(); ++i) {
        EXPECT_EQ(numbers[i], i) << path;
        const auto atom = reader->GetFrameAtom(stream, numbers[i]);
        EXPECT_TRUE(atom) << path << " frame " << i;
        frames.push_back(atom ? static_cast<std::uint32_t>(((atom->GetTimeStamp() - kStart) * 30 + 500'000) / 1'000'000)
                              : UINT32_MAX);
    }
    return frames;
}

class KelRun : public kel_tool_test::KelToolTest {
protected:
    // Runs `kel run` on `graph` (written to graph.json) with `extra` arguments.
    kel_tool_test::KelRun RunGraph(const std::string& graph, const std::vector<std::string>& extra = {}) {
        WriteText(File("graph.json"), graph);
        std::vector<std::string> args{"run", "graph.json"};
        args.insert(args.end(), extra.begin(), extra.end());
        return Kel(args);
    }
    Frames Stored(const std::string& name, std::uint16_t stream) const { return SourceFrames(File(name), stream); }
};

using kel_tool_test::CamerasJson;
using kel_tool_test::FilterJson;
using kel_tool_test::GraphJson;

const std::string kTimelineGraph =
    GraphJson({CamerasJson(2, 40),
               FilterJson("TargetKEL2FileWriter", "rec", R"("KEL File Path": "take1.kel", "Write XML": false)"),
               FilterJson("TargetKEL2FileSnapshotWriter", "snap",
                          R"("KEL File Path": "snaps.kel", "Write XML": false, "Frames count per snapshot": 3)")},
              R"("timeline": [
    {"frame": 5, "filter": "rec", "set": {"Enable Recording": true}},
    {"frame": 8, "filter": "snap", "press": "Take snapshot"},
    {"frame": 15, "filter": "rec", "set": {"Enable Recording": "false"}},
    {"frame": 25, "filter": "rec", "set": {"KEL File Path": "take2.kel", "Enable Recording": "true"}},
    {"frame": 30, "filter": "snap", "press": ["Take snapshot"]}])");

// Recording changes take effect between frames: switched on before frame 5,
// the writer records from frame 6; switched off before 15, frame 15 is the
// last one written. Snapshots act at once: frames 8-10 and 30-32.
TEST_F(KelRun, TimelineTogglesRecordingIntoTwoTakesAndSnapshots) {
    const auto run = RunGraph(kTimelineGraph);
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("Frames delivered: 40"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("Timeline events:  5 fired"), std::string::npos) << run.out;
    for (const std::uint16_t s : {0, 1}) {
        EXPECT_EQ(Stored("take1.kel", s), Range(6, 15));
        EXPECT_EQ(Stored("take2.kel", s), Range(26, 39));
        EXPECT_EQ(Stored("snaps.kel", s), Range(8, 10) + Range(30, 32));
    }
}

TEST_F(KelRun, SetOverrideReplacesParameterOfTheFile) {
    const auto run = RunGraph(kTimelineGraph, {"-q", "--set", "cams.Frames=10", "--set", "rec.KEL File Path=o.kel"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(Stored("o.kel", 0), Range(6, 9));
    EXPECT_FALSE(Exists("take1.kel"));
    EXPECT_FALSE(Exists("take2.kel"));
}

// Pass numbers count from 0: the press at frame 4 acts in every pass, the one
// at frame 6 in the third only.
TEST_F(KelRun, LoopsRepeatTheTimelineEveryPass) {
    const auto run =
        RunGraph(GraphJson({CamerasJson(1, 10), FilterJson("TargetKEL2FileSnapshotWriter", "snap",
                                                           R"("KEL File Path": "snaps.kel", "Write XML": false, )"
                                                           R"("Frames count per snapshot": 2)")},
                           R"("timeline": [{"frame": 4, "filter": "snap", "press": "Take snapshot"},
                                                        {"frame": 6, "pass": 2, "filter": "snap", "press": "Take snapshot"}],
                                           "options": {"loops": 3})"));
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("Frames delivered: 30"), std::string::npos) << run.out;
    EXPECT_EQ(Stored("snaps.kel", 0), Range(4, 5) + Range(4, 5) + Range(4, 7));
}

// Synthetic frames 16x16 recorded to rec.kel, with `rest` as further members
// of the graph object.
std::string RecordingGraph(std::uint32_t streams, std::uint32_t frames, const std::string& rest) {
    return GraphJson({CamerasJson(streams, frames), FilterJson("TargetKEL2FileWriter", "rec",
                                                               R"("KEL File Path": "rec.kel", "Write XML": false, )"
                                                               R"("Enable Recording": true)")},
                     rest);
}

// The stop is requested before frame 12 is pushed; the graph checks for it
// before the next frame, so frame 12 is still delivered and written.
TEST_F(KelRun, StopEventEndsTheRunAfterItsFrame) {
    const auto run = RunGraph(RecordingGraph(1, 100, R"("timeline": [{"frame": 12, "stop": true}])"));
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("Frames delivered: 13\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("Stopped early:    yes"), std::string::npos) << run.out;
    EXPECT_EQ(Stored("rec.kel", 0), Range(0, 12));
}

TEST_F(KelRun, InterruptStopsAnEndlessRunCleanly) {
    WriteText(File("graph.json"), RecordingGraph(2, 50, R"("options": {"loops": 0})"));
    kel_tool_test::KelChild kel({"run", "graph.json"}, Cwd());
    ASSERT_GT(kel.Pid(), 0);
    // The writer creates its file when the graph starts playing, after the
    // interrupt handler is in place. The deadline only bounds a broken run.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!Exists("rec.kel") && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ASSERT_TRUE(Exists("rec.kel"));
    ASSERT_EQ(kill(kel.Pid(), SIGINT), 0);
    EXPECT_EQ(kel.Wait(), 130);
    // Stopped between frames as at a natural end: the file is closed with its
    // index and holds the same whole frames of both cameras.
    const auto verify = Kel({"verify", "rec.kel"});
    EXPECT_EQ(verify.exitCode, 0) << verify.out;
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
        WriteText(File("graph.json"),
                  GraphJson({CamerasJson(2, 30, 64, 64),
                             FilterJson(target, "rec",
                                        R"("KEL File Path": "full.kel", "Enable Recording": true)" + noDrop)}));
        const auto run = kel_tool_test::RunKel({"run", "graph.json", "--quiet"}, Cwd(), 64 * 1024);
        EXPECT_EQ(run.exitCode, 1) << run.err;
        EXPECT_NE(run.err.find("writing '" + File("full.kel") + "' failed"), std::string::npos) << run.err;
        EXPECT_NE(run.err.find("File too large"), std::string::npos) << run.err;
        const auto stored = Stored("full.kel", 0);
        ASSERT_FALSE(stored.empty());
        EXPECT_LT(stored.size(), 30U);
        EXPECT_EQ(stored, Range(0, static_cast<std::uint32_t>(stored.size() - 1)));
    }
}

TEST_F(KelRun, GraphErrorsFailTheRunAndSayWhere) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {R"({"filters": [{"class": "NoSuchFilter", "name": "x"}]})", "filter class 'NoSuchFilter' is not registered"},
        {GraphJson({FilterJson("SyntheticCaptureSource", "cams", R"("Colour": "red")")}), "has no parameter 'Colour'"},
        {RecordingGraph(1, 20, R"("timeline": [{"frame": 3, "filter": "rec", "set": {"Enable Recording": "maybe"}}])"),
         "timeline event at frame 3: cannot set 'Enable Recording'"},
        {R"({"filters": [ {"class": "X"} ]})", "filters[0]: missing 'name'"},
        {"{ not json", "not valid JSON"}};
    for (const auto& [graph, message] : cases) {
        SCOPED_TRACE(message);
        WriteText(File("graph.json"), graph);
        KelFails({"run", "graph.json"}, 1, message);
    }
}

// The timeline example records frames 11-30 and 41-59 of two cameras and
// snapshots of frames 20-24 and 50-54; the copy example copies a recording.
TEST_F(KelRun, ShippedExamplesRun) {
    const auto run = Kel({"run", "-q", KEL_TOOL_EXAMPLES_DIR "/timeline-recording.json"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    for (const std::uint16_t s : {0, 1}) {
        EXPECT_EQ(Stored("recordings/take1.kel", s), Range(11, 30));
        EXPECT_EQ(Stored("recordings/take2.kel", s), Range(41, 59));
        EXPECT_EQ(Stored("recordings/snapshots.kel", s), Range(20, 24) + Range(50, 54));
    }
    kel_tool_test::RecordSynthetic(File("rec.kel"), 2, 6);
    const auto copy = Kel({"run", KEL_TOOL_EXAMPLES_DIR "/async-copy.json", "--set", "in.KEL File Path=rec.kel"});
    ASSERT_EQ(copy.exitCode, 0) << copy.err;
    EXPECT_NE(copy.out.find("out: Dropped frames count = 0"), std::string::npos) << copy.out;
    kel_tool_test::ExpectSameStreams(*kel_tool_test::Open(File("rec.kel")), *kel_tool_test::Open(File("copy.kel")),
                                     {0, 1});
    EXPECT_TRUE(Exists("copy.kel.xml"));
}

TEST_F(KelDemo, RecordsVerifiesAndExportsThumbnails) {
    const auto run = Kel({"demo", "--out", "demo", "--streams", "2", "--frames", "12", "--width", "64", "--height",
                          "48", "--snapshot-at", "3", "--snapshot-frames", "4"});
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    for (const std::uint16_t s : {0, 1}) {
        EXPECT_EQ(SourceFrames(File("demo/capture.kel"), s), Range(0, 11));
        EXPECT_EQ(SourceFrames(File("demo/merged.kel"), s), Range(0, 11));
        EXPECT_EQ(SourceFrames(File("demo/per-camera/camera_" + std::to_string(s) + ".kel"), s), Range(0, 11));
    }
    // The asynchronous snapshot writer counts the frames it takes from its queue.
    EXPECT_EQ(SourceFrames(File("demo/snapshot.kel"), 0).size(), 4U);
    EXPECT_TRUE(Exists("demo/capture.kel.xml"));
    for (const char* png : {"demo/thumbnails/camera_0.png", "demo/thumbnails/camera_1.png"}) {
        EXPECT_GT(kel_tool_test::ReadPng(File(png)).width, 0U) << png;
    }
    const auto verify = Kel({"verify", "demo/capture.kel", "demo/merged.kel"});
    EXPECT_EQ(verify.exitCode, 0) << verify.out;
}

}  // namespace
