// `kel run` with graph files and timelines, and `kel demo`.

#include <KEL/ReadKEL2File.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>

#include "ToolTestSupport.h"
#include "support/TestSupport.h"

namespace {

using kel_test::TempDir;
using kel_tool_test::RunKel;
using kel_tool_test::WriteText;

std::uint32_t FramesOf(const std::string& path, std::uint16_t stream) {
    KEL::ReadKEL2File reader(path.c_str());
    EXPECT_EQ(reader.Initialize(), KEL::KEL_OK) << path;
    return reader.GetNumFrames(stream);
}

std::int64_t FirstTimeStamp(const std::string& path, std::uint16_t stream) {
    KEL::ReadKEL2File reader(path.c_str());
    EXPECT_EQ(reader.Initialize(), KEL::KEL_OK) << path;
    const auto atom = reader.GetFrameAtom(stream, 0);
    return atom ? atom->GetTimeStamp() : -1;
}

// Synthetic frames are stamped at a fixed start plus n/30 s.
std::int64_t StampOfFrame(std::uint32_t frame) { return 1'700'000'000'000'000 + frame * 1'000'000LL / 30; }

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

TEST(KelRun, TimelineTogglesRecordingIntoTwoTakesAndSnapshots) {
    TempDir dir;
    WriteText(dir.File("graph.json"), kTimelineGraph);
    const auto run = RunKel({"run", "graph.json"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("Frames delivered: 40"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("Timeline events:  5 fired"), std::string::npos) << run.out;
    // Recording changes take effect between frames: switched on before frame
    // 5, the writer records from frame 6; switched off before 15, frame 15 is
    // the last one written.
    for (const std::uint16_t s : {0, 1}) {
        EXPECT_EQ(FramesOf(dir.File("take1.kel"), s), 10U);
        EXPECT_EQ(FirstTimeStamp(dir.File("take1.kel"), s), StampOfFrame(6));
        EXPECT_EQ(FramesOf(dir.File("take2.kel"), s), 14U);
        EXPECT_EQ(FirstTimeStamp(dir.File("take2.kel"), s), StampOfFrame(26));
        // Snapshots act at once: frames 8-10 and 30-32.
        EXPECT_EQ(FramesOf(dir.File("snaps.kel"), s), 6U);
        EXPECT_EQ(FirstTimeStamp(dir.File("snaps.kel"), s), StampOfFrame(8));
    }
}

TEST(KelRun, SetOverrideReplacesParameterOfTheFile) {
    TempDir dir;
    WriteText(dir.File("graph.json"), kTimelineGraph);
    const auto run = RunKel({"run", "-q", "graph.json", "--set", "cams.Frames=10", "--set", "rec.KEL File Path=o.kel"},
                            dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    // Ten frames, recording from frame 6 on: frames 6 to 9.
    EXPECT_EQ(FramesOf(dir.File("o.kel"), 0), 4U);
    EXPECT_FALSE(std::filesystem::exists(dir.File("take2.kel")));
}

TEST(KelRun, LoopsRepeatTheTimelineEveryPass) {
    TempDir dir;
    WriteText(dir.File("graph.json"), R"({
      "filters": [
        {"class": "SyntheticCaptureSource", "name": "cams", "params": {"Streams": 1, "Frames": 10, "Width": 16, "Height": 16}},
        {"class": "TargetKEL2FileSnapshotWriter", "name": "snap",
         "params": {"KEL File Path": "snaps.kel", "Write XML": false, "Frames count per snapshot": 2}}
      ],
      "timeline": [{"frame": 4, "filter": "snap", "press": "Take snapshot"},
                   {"frame": 6, "pass": 2, "filter": "snap", "press": "Take snapshot"}],
      "options": {"loops": 3}
    })");
    const auto run = RunKel({"run", "graph.json"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("Frames delivered: 30"), std::string::npos) << run.out;
    EXPECT_EQ(FramesOf(dir.File("snaps.kel"), 0), 8U);
}

TEST(KelRun, StopEventEndsTheRunEarly) {
    TempDir dir;
    WriteText(dir.File("graph.json"), R"({
      "filters": [
        {"class": "SyntheticCaptureSource", "name": "cams", "params": {"Streams": 1, "Frames": 100, "Width": 16, "Height": 16}},
        {"class": "TargetKEL2FileWriter", "name": "rec",
         "params": {"KEL File Path": "rec.kel", "Write XML": false, "Enable Recording": true}}
      ],
      "timeline": [{"frame": 12, "stop": true}]
    })");
    const auto run = RunKel({"run", "graph.json"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("Stopped early:    yes"), std::string::npos) << run.out;
    const auto frames = FramesOf(dir.File("rec.kel"), 0);
    EXPECT_GE(frames, 12U);
    EXPECT_LE(frames, 13U);
}

TEST(KelRun, InterruptStopsAnEndlessRunCleanly) {
    TempDir dir;
    WriteText(dir.File("graph.json"), R"({
      "filters": [
        {"class": "SyntheticCaptureSource", "name": "cams", "params": {"Streams": 2, "Frames": 50, "Width": 16, "Height": 16}},
        {"class": "TargetKEL2FileWriter", "name": "rec",
         "params": {"KEL File Path": "rec.kel", "Write XML": false, "Enable Recording": true}}
      ],
      "options": {"loops": 0}
    })");
    const int pid = kel_tool_test::StartKel({"run", "graph.json"}, dir.Path().string());
    ASSERT_GT(pid, 0);
    // The writer creates its file when the graph starts playing, after the
    // interrupt handler is in place. The deadline only bounds a broken run.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!std::filesystem::exists(dir.File("rec.kel")) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    ASSERT_TRUE(std::filesystem::exists(dir.File("rec.kel")));
    ASSERT_EQ(kill(pid, SIGINT), 0);
    EXPECT_EQ(kel_tool_test::WaitKel(pid), 130);
    // Stopped as at a natural end: the file is closed with its index.
    const auto verify = RunKel({"verify", "rec.kel"}, dir.Path().string());
    EXPECT_EQ(verify.exitCode, 0) << verify.out;
}

TEST(KelRun, UnregisteredClassIsNamed) {
    TempDir dir;
    WriteText(dir.File("graph.json"), R"({"filters": [{"class": "NoSuchFilter", "name": "x"}]})");
    const auto run = RunKel({"run", "graph.json"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("filter class 'NoSuchFilter' is not registered"), std::string::npos) << run.err;
}

TEST(KelRun, UnknownParameterIsNamed) {
    TempDir dir;
    WriteText(dir.File("graph.json"),
              R"({"filters": [{"class": "SyntheticCaptureSource", "name": "cams", "params": {"Colour": "red"}}]})");
    const auto run = RunKel({"run", "graph.json"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("has no parameter 'Colour'"), std::string::npos) << run.err;
}

TEST(KelRun, BadValueInTimelineFailsTheRunAndNamesTheEvent) {
    TempDir dir;
    WriteText(dir.File("graph.json"), R"({
      "filters": [
        {"class": "SyntheticCaptureSource", "name": "cams", "params": {"Streams": 1, "Frames": 20, "Width": 16, "Height": 16}},
        {"class": "TargetKEL2FileWriter", "name": "rec", "params": {"KEL File Path": "rec.kel", "Write XML": false}}
      ],
      "timeline": [{"frame": 3, "filter": "rec", "set": {"Enable Recording": "maybe"}}]
    })");
    const auto run = RunKel({"run", "graph.json"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("timeline event at frame 3"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("Enable Recording"), std::string::npos) << run.err;
}

TEST(KelRun, SourceFailureIsReportedWithItsMessage) {
    TempDir dir;
    WriteText(dir.File("graph.json"), R"({
      "filters": [
        {"class": "SourceKEL2FileReader", "name": "in", "params": {"KEL File Path": "absent.kel"}},
        {"class": "TargetKEL2FileWriter", "name": "out", "params": {"KEL File Path": "out.kel", "Enable Recording": true}}
      ]
    })");
    const auto run = RunKel({"run", "graph.json"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("Failed to open file '"), std::string::npos) << run.err;
}

TEST(KelRun, MalformedGraphFileIsReported) {
    TempDir dir;
    WriteText(dir.File("graph.json"), R"({"filters": [ {"class": "X"} ]})");
    const auto run = RunKel({"run", "graph.json"}, dir.Path().string());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("filters[0]: missing 'name'"), std::string::npos) << run.err;

    WriteText(dir.File("broken.json"), "{ not json");
    const auto broken = RunKel({"run", "broken.json"}, dir.Path().string());
    EXPECT_EQ(broken.exitCode, 1);
    EXPECT_NE(broken.err.find("not valid JSON"), std::string::npos) << broken.err;
}

TEST(KelRun, ShippedExampleGraphRuns) {
    TempDir dir;
    const auto run = RunKel({"run", "-q", KEL_TOOL_EXAMPLES_DIR "/timeline-recording.json"}, dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_GT(FramesOf(dir.File("recordings/take1.kel"), 0), 0U);
    EXPECT_GT(FramesOf(dir.File("recordings/take2.kel"), 1), 0U);
    EXPECT_EQ(FramesOf(dir.File("recordings/snapshots.kel"), 0), 10U);
}

TEST(KelRun, ShippedAsyncCopyExampleCopiesAFile) {
    TempDir dir;
    kel_tool_test::RecordSynthetic(dir.File("rec.kel"), 2, 6);
    const auto run = RunKel({"run", KEL_TOOL_EXAMPLES_DIR "/async-copy.json", "--set", "in.KEL File Path=rec.kel"},
                            dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("out: Dropped frames count = 0"), std::string::npos) << run.out;
    EXPECT_EQ(FramesOf(dir.File("copy.kel"), 1), 6U);
    EXPECT_TRUE(std::filesystem::exists(dir.File("copy.kel.xml")));
}

TEST(KelDemo, RecordsVerifiesAndExportsThumbnails) {
    TempDir dir;
    const auto run = RunKel({"demo", "--out", "demo", "--streams", "2", "--frames", "12", "--width", "64", "--height",
                             "48", "--snapshot-at", "3", "--snapshot-frames", "4"},
                            dir.Path().string());
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_NE(run.out.find("Demo files are in"), std::string::npos);
    EXPECT_EQ(FramesOf(dir.File("demo/capture.kel"), 1), 12U);
    EXPECT_EQ(FramesOf(dir.File("demo/per-camera/camera_0.kel"), 0), 12U);
    EXPECT_EQ(FramesOf(dir.File("demo/per-camera/camera_1.kel"), 1), 12U);
    EXPECT_EQ(FramesOf(dir.File("demo/merged.kel"), 0), 12U);
    EXPECT_EQ(FramesOf(dir.File("demo/snapshot.kel"), 0), 4U);
    EXPECT_TRUE(std::filesystem::exists(dir.File("demo/capture.kel.xml")));
    for (const char* png : {"demo/thumbnails/camera_0.png", "demo/thumbnails/camera_1.png"}) {
        const auto bytes = kel_test::ReadFileBytes(dir.File(png));
        ASSERT_GT(bytes.size(), 8U) << png;
        EXPECT_EQ(bytes[1], 'P');
        EXPECT_EQ(bytes[2], 'N');
        EXPECT_EQ(bytes[3], 'G');
    }
    const auto verify = RunKel({"verify", "demo/capture.kel", "demo/merged.kel"}, dir.Path().string());
    EXPECT_EQ(verify.exitCode, 0) << verify.out;
}

}  // namespace
