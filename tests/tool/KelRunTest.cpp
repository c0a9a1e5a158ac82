// `kel run` with graph files and timelines, and `kel demo`.

#include <KEL/ReadKEL2File.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>

#include "ToolTestSupport.h"

namespace {

using kel_tool_test::WriteText;
using KelDemo = kel_tool_test::KelToolTest;

// The number of frames of `stream` in the container at `path`.
std::uint32_t FramesOf(const std::string& path, std::uint16_t stream) {
    KEL::ReadKEL2File reader(path.c_str());
    EXPECT_EQ(reader.Initialize(), KEL::KEL_OK) << path;
    return reader.GetNumFrames(stream);
}

// Synthetic frames are stamped at a fixed start plus n/30 s.
std::int64_t StampOfFrame(std::uint32_t frame) { return 1'700'000'000'000'000 + frame * 1'000'000LL / 30; }

class KelRun : public kel_tool_test::KelToolTest {
protected:
    // Runs `kel run` on `graph` (written to graph.json) with `extra` arguments.
    kel_tool_test::KelRun RunGraph(const std::string& graph, const std::vector<std::string>& extra = {}) {
        WriteText(File("graph.json"), graph);
        std::vector<std::string> args{"run", "graph.json"};
        args.insert(args.end(), extra.begin(), extra.end());
        return Kel(args);
    }
    // The frame count and first time stamp of `stream` in `name`.
    std::pair<std::uint32_t, std::int64_t> FramesAndFirstStamp(const std::string& name, std::uint16_t stream) const {
        KEL::ReadKEL2File reader(File(name).c_str());
        EXPECT_EQ(reader.Initialize(), KEL::KEL_OK) << name;
        const auto atom = reader.GetFrameAtom(stream, 0);
        return {reader.GetNumFrames(stream), atom ? atom->GetTimeStamp() : -1};
    }
    std::uint32_t Frames(const std::string& name, std::uint16_t stream) const { return FramesOf(File(name), stream); }
};

const char* const kTimelineGraph = R"({
  "filters": [
    {"class": "SyntheticCaptureSource", "name": "cams", "params": {"Streams": 2, "Frames": 40, "Width": 16, "Height": 16}},
    {"class": "TargetKEL2FileWriter", "name": "rec",
     "params": {"KEL File Path": "take1.kel", "Write XML": false}},
    {"class": "TargetKEL2FileSnapshotWriter", "name": "snap",
     "params": {"KEL File Path": "snaps.kel", "Write XML": false, "Frames count per snapshot": 3}}
  ],
  "connections": [["cams", "rec"], ["cams", "snap"]],
  "timeline": [
    {"frame": 5, "filter": "rec", "set": {"Enable Recording": true}},
    {"frame": 8, "filter": "snap", "press": "Take snapshot"},
    {"frame": 15, "filter": "rec", "set": {"Enable Recording": "false"}},
    {"frame": 25, "filter": "rec", "set": {"KEL File Path": "take2.kel", "Enable Recording": "true"}},
    {"frame": 30, "filter": "snap", "press": ["Take snapshot"]}
  ]
})";

TEST_F(KelRun, TimelineTogglesRecordingIntoTwoTakesAndSnapshots) {
    const auto run = RunGraph(kTimelineGraph);
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("Frames delivered: 40"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("Timeline events:  5 fired"), std::string::npos) << run.out;
    // Recording changes take effect between frames: switched on before frame
    // 5, the writer records from frame 6; switched off before 15, frame 15 is
    // the last one written. Snapshots act at once: frames 8-10 and 30-32.
    for (const std::uint16_t s : {0, 1}) {
        EXPECT_EQ(FramesAndFirstStamp("take1.kel", s), std::make_pair(10U, StampOfFrame(6)));
        EXPECT_EQ(FramesAndFirstStamp("take2.kel", s), std::make_pair(14U, StampOfFrame(26)));
        EXPECT_EQ(FramesAndFirstStamp("snaps.kel", s), std::make_pair(6U, StampOfFrame(8)));
    }
}

TEST_F(KelRun, SetOverrideReplacesParameterOfTheFile) {
    const auto run = RunGraph(kTimelineGraph, {"-q", "--set", "cams.Frames=10", "--set", "rec.KEL File Path=o.kel"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    // Ten frames, recording from frame 6 on: frames 6 to 9.
    EXPECT_EQ(Frames("o.kel", 0), 4U);
    EXPECT_FALSE(Exists("take2.kel"));
}

TEST_F(KelRun, LoopsRepeatTheTimelineEveryPass) {
    const auto run = RunGraph(R"({
      "filters": [
        {"class": "SyntheticCaptureSource", "name": "cams", "params": {"Streams": 1, "Frames": 10, "Width": 16, "Height": 16}},
        {"class": "TargetKEL2FileSnapshotWriter", "name": "snap",
         "params": {"KEL File Path": "snaps.kel", "Write XML": false, "Frames count per snapshot": 2}}
      ],
      "timeline": [{"frame": 4, "filter": "snap", "press": "Take snapshot"},
                   {"frame": 6, "pass": 2, "filter": "snap", "press": "Take snapshot"}],
      "options": {"loops": 3}
    })");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("Frames delivered: 30"), std::string::npos) << run.out;
    EXPECT_EQ(Frames("snaps.kel", 0), 8U);
}

// A recording of synthetic frames 16x16 to rec.kel, with `rest` closing the
// graph object.
std::string RecordingGraph(int streams, int frames, const std::string& rest) {
    return R"({"filters": [
        {"class": "SyntheticCaptureSource", "name": "cams", "params": {"Streams": )" +
           std::to_string(streams) + R"(, "Frames": )" + std::to_string(frames) + R"(, "Width": 16, "Height": 16}},
        {"class": "TargetKEL2FileWriter", "name": "rec",
         "params": {"KEL File Path": "rec.kel", "Write XML": false, "Enable Recording": true}}
      ])" + rest;
}

TEST_F(KelRun, StopEventEndsTheRunEarly) {
    const auto run = RunGraph(RecordingGraph(1, 100, R"(, "timeline": [{"frame": 12, "stop": true}]})"));
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("Stopped early:    yes"), std::string::npos) << run.out;
    const auto frames = Frames("rec.kel", 0);
    EXPECT_GE(frames, 12U);
    EXPECT_LE(frames, 13U);
}

TEST_F(KelRun, InterruptStopsAnEndlessRunCleanly) {
    WriteText(File("graph.json"), RecordingGraph(2, 50, R"(, "options": {"loops": 0}})"));
    const int pid = kel_tool_test::StartKel({"run", "graph.json"}, Cwd());
    ASSERT_GT(pid, 0);
    // The writer creates its file when the graph starts playing, after the
    // interrupt handler is in place. The deadline only bounds a broken run.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!Exists("rec.kel") && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    ASSERT_TRUE(Exists("rec.kel"));
    ASSERT_EQ(kill(pid, SIGINT), 0);
    EXPECT_EQ(kel_tool_test::WaitKel(pid), 130);
    // Stopped as at a natural end: the file is closed with its index.
    const auto verify = Kel({"verify", "rec.kel"});
    EXPECT_EQ(verify.exitCode, 0) << verify.out;
}

// A writer that cannot write makes the run fail and names its file, also
// when it is an asynchronous target, whose writing thread has no way to
// report to the graph. Files over 64 KiB fail (RLIMIT_FSIZE, as a full disk).
TEST_F(KelRun, WriteFailureFailsTheRunAndNamesTheFileForEveryTarget) {
    for (const std::string target : {"TargetKEL2FileWriter", "TargetKEL2FileWriterAsync"}) {
        SCOPED_TRACE(target);
        const std::string noDrop = target.ends_with("Async") ? R"(, "Drop frames when full": false)" : "";
        WriteText(File("graph.json"), R"({"filters": [
          {"class": "SyntheticCaptureSource", "name": "cams", "params": {"Streams": 2, "Frames": 30, "Width": 64, "Height": 64}},
          {"class": ")" + target + R"(", "name": "rec",
           "params": {"KEL File Path": "full.kel", "Enable Recording": true)" +
                                          noDrop + R"(}}],
          "connections": [["cams", "rec"]]})");
        const auto run = kel_tool_test::RunKel({"run", "graph.json", "--quiet"}, Cwd(), 64 * 1024);
        EXPECT_EQ(run.exitCode, 1) << run.err;
        EXPECT_NE(run.err.find("writing '" + File("full.kel") + "' failed"), std::string::npos) << run.err;
        EXPECT_NE(run.err.find("File too large"), std::string::npos) << run.err;
        // What was acknowledged before the limit is readable.
        KEL::ReadKEL2File reader(File("full.kel").c_str());
        ASSERT_EQ(reader.Initialize(), KEL::KEL_OK);
        EXPECT_GT(reader.GetNumFrames(0), 0U);
        EXPECT_LT(reader.GetNumFrames(0), 30U);
    }
}

TEST_F(KelRun, UnregisteredClassIsNamed) {
    WriteText(File("graph.json"), R"({"filters": [{"class": "NoSuchFilter", "name": "x"}]})");
    KelFails({"run", "graph.json"}, 1, "filter class 'NoSuchFilter' is not registered");
}

TEST_F(KelRun, UnknownParameterIsNamed) {
    WriteText(File("graph.json"),
              R"({"filters": [{"class": "SyntheticCaptureSource", "name": "cams", "params": {"Colour": "red"}}]})");
    KelFails({"run", "graph.json"}, 1, "has no parameter 'Colour'");
}

TEST_F(KelRun, BadValueInTimelineFailsTheRunAndNamesTheEvent) {
    WriteText(File("graph.json"),
              RecordingGraph(
                  1, 20, R"(, "timeline": [{"frame": 3, "filter": "rec", "set": {"Enable Recording": "maybe"}}]})"));
    const auto run = KelFails({"run", "graph.json"}, 1, "timeline event at frame 3");
    EXPECT_NE(run.err.find("Enable Recording"), std::string::npos) << run.err;
}

TEST_F(KelRun, SourceFailureIsReportedWithItsMessage) {
    WriteText(File("graph.json"), R"({
      "filters": [
        {"class": "SourceKEL2FileReader", "name": "in", "params": {"KEL File Path": "absent.kel"}},
        {"class": "TargetKEL2FileWriter", "name": "out", "params": {"KEL File Path": "out.kel", "Enable Recording": true}}
      ]
    })");
    KelFails({"run", "graph.json"}, 1, "Failed to open file '");
}

TEST_F(KelRun, MalformedGraphFileIsReported) {
    WriteText(File("graph.json"), R"({"filters": [ {"class": "X"} ]})");
    KelFails({"run", "graph.json"}, 1, "filters[0]: missing 'name'");
    WriteText(File("broken.json"), "{ not json");
    KelFails({"run", "broken.json"}, 1, "not valid JSON");
}

TEST_F(KelRun, ShippedExampleGraphRuns) {
    const auto run = Kel({"run", "-q", KEL_TOOL_EXAMPLES_DIR "/timeline-recording.json"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_GT(Frames("recordings/take1.kel", 0), 0U);
    EXPECT_GT(Frames("recordings/take2.kel", 1), 0U);
    EXPECT_EQ(Frames("recordings/snapshots.kel", 0), 10U);
}

TEST_F(KelRun, ShippedAsyncCopyExampleCopiesAFile) {
    kel_tool_test::RecordSynthetic(File("rec.kel"), 2, 6);
    const auto run = Kel({"run", KEL_TOOL_EXAMPLES_DIR "/async-copy.json", "--set", "in.KEL File Path=rec.kel"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("out: Dropped frames count = 0"), std::string::npos) << run.out;
    EXPECT_EQ(Frames("copy.kel", 1), 6U);
    EXPECT_TRUE(Exists("copy.kel.xml"));
}

TEST_F(KelDemo, RecordsVerifiesAndExportsThumbnails) {
    const auto run = Kel({"demo", "--out", "demo", "--streams", "2", "--frames", "12", "--width", "64", "--height",
                          "48", "--snapshot-at", "3", "--snapshot-frames", "4"});
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_NE(run.out.find("Demo files are in"), std::string::npos);
    EXPECT_EQ(FramesOf(File("demo/capture.kel"), 1), 12U);
    EXPECT_EQ(FramesOf(File("demo/per-camera/camera_0.kel"), 0), 12U);
    EXPECT_EQ(FramesOf(File("demo/per-camera/camera_1.kel"), 1), 12U);
    EXPECT_EQ(FramesOf(File("demo/merged.kel"), 0), 12U);
    EXPECT_EQ(FramesOf(File("demo/snapshot.kel"), 0), 4U);
    EXPECT_TRUE(Exists("demo/capture.kel.xml"));
    for (const char* png : {"demo/thumbnails/camera_0.png", "demo/thumbnails/camera_1.png"}) {
        const auto bytes = kel_test::ReadFileBytes(File(png));
        ASSERT_GT(bytes.size(), 8U) << png;
        EXPECT_EQ(std::string(bytes.begin() + 1, bytes.begin() + 4), "PNG") << png;
    }
    const auto verify = Kel({"verify", "demo/capture.kel", "demo/merged.kel"});
    EXPECT_EQ(verify.exitCode, 0) << verify.out;
}

}  // namespace
