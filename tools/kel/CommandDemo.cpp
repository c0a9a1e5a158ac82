#include <KEL/ContainerVerifier.h>

#include <filesystem>
#include <iostream>

#include "Command.h"
#include "GraphBuilder.h"
#include "GraphRunner.h"
#include "HtmlReport.h"
#include "PluginSetup.h"
#include "SummaryText.h"
#include "ThumbnailExport.h"
#include "utils/ParameterNames.h"

namespace KelTool {

namespace {

namespace fs = std::filesystem;

struct DemoOptions {
    std::string out = "kel-demo";
    std::uint32_t streams = 3;
    std::uint32_t frames = 60;
    std::uint32_t width = 256;
    std::uint32_t height = 192;
    std::uint32_t snapshotAt = 30;
    std::uint32_t snapshotFrames = 10;
};

// A synthetic multi-camera capture recorded three ways at once: one file of
// all cameras (with thumbnails and an XML companion), one file per camera,
// and a snapshot of a few frames taken part-way through.
GraphDescription CaptureGraph(const DemoOptions& o, const fs::path& out) {
    GraphDescription g;
    g.filters.push_back({"SyntheticCaptureSource",
                         "cameras",
                         {{"Streams", std::to_string(o.streams)},
                          {"Frames", std::to_string(o.frames)},
                          {"Width", std::to_string(o.width)},
                          {"Height", std::to_string(o.height)}}});
    g.filters.push_back({"TargetKEL2FileWriter",
                         "recorder",
                         {{Kel2File::kParamKelFilePath, (out / "capture.kel").string()},
                          {Kel2File::kParamWriteXml, "true"},
                          {Kel2File::kParamCreateThumbnail, "true"},
                          {Kel2File::kParamEnableRecording, "true"}}});
    g.filters.push_back({"TargetKEL2FilePerStreamWriter",
                         "per-camera",
                         {{Kel2File::kParamKelFilePath, (out / "per-camera" / "camera.kel").string()},
                          {Kel2File::kParamWriteXml, "false"},
                          {Kel2File::kParamCreateThumbnail, "true"},
                          {Kel2File::kParamEnableRecording, "true"}}});
    g.filters.push_back({"TargetKEL2FileSnapshotWriterAsync",
                         "snapshot",
                         {{Kel2File::kParamKelFilePath, (out / "snapshot.kel").string()},
                          {Kel2File::kParamWriteXml, "false"},
                          {Kel2File::kParamFramesPerSnapshot, std::to_string(o.snapshotFrames)},
                          {Kel2File::kParamBufferSize, "8"},
                          {Kel2File::kParamDropWhenFull, "false"}}});
    TimelineEvent press;
    press.frame = o.snapshotAt;
    press.filter = "snapshot";
    press.press = {Kel2File::kParamTakeSnapshot};
    g.timeline.push_back(press);
    return g;
}

bool RunStep(const GraphDescription& description, const std::string& what) {
    std::cout << "==> " << what << "\n";
    KEL::Graph graph;
    std::string error;
    if (!BuildGraph(description, graph, &error)) {
        Fail(error);
        return false;
    }
    const GraphRunOutcome outcome = RunGraph(graph, description, true, {.overwrite = true});
    if (!outcome.ok) {
        Fail(outcome.error);
        return false;
    }
    if (outcome.interrupted) {
        Fail("interrupted");
        return false;
    }
    std::cout << "    " << outcome.result.framesDelivered << " frame(s) played\n";
    return true;
}

int RunDemo(const GlobalOptions& global, const DemoOptions& options) {
    std::string error;
    if (!LoadPlugins(global, &error)) {
        return Fail(error);
    }
    const fs::path out = fs::absolute(options.out).lexically_normal();
    std::error_code ec;
    fs::create_directories(out, ec);
    if (ec) {
        return Fail("cannot create '" + out.string() + "': " + ec.message());
    }
    // Old per-camera files would be merged with the new ones.
    fs::remove_all(out / "per-camera", ec);

    if (!RunStep(CaptureGraph(options, out), "Recording " + std::to_string(options.frames) + " frames of " +
                                                 std::to_string(options.streams) + " synthetic cameras")) {
        return kExitFailure;
    }

    GraphDescription merge;
    merge.filters.push_back(
        {"SourceKEL2MultiFileReader", "per-camera", {{Kel2File::kParamKelFilesDir, (out / "per-camera").string()}}});
    merge.filters.push_back({"TargetKEL2FileWriter",
                             "merged",
                             {{Kel2File::kParamKelFilePath, (out / "merged.kel").string()},
                              {Kel2File::kParamWriteXml, "false"},
                              {Kel2File::kParamEnableRecording, "true"}}});
    if (!RunStep(merge, "Merging the per-camera files back into one")) {
        return kExitFailure;
    }

    std::vector<std::string> files = {(out / "capture.kel").string(), (out / "snapshot.kel").string(),
                                      (out / "merged.kel").string()};
    for (const auto& f : ListContainerFiles((out / "per-camera").string())) {
        files.push_back(f);
    }

    std::cout << "==> Reading back\n";
    bool allGood = true;
    for (const auto& f : files) {
        const KEL::ContainerSummary s = KEL::SummarizeContainer(f);
        if (!s.Ok()) {
            std::cout << "    " << f << ": cannot open: " << s.error << "\n";
            allGood = false;
            continue;
        }
        std::cout << "    " << fs::relative(f, out).string() << ": " << s.streams.size() << " stream(s), " << s.frames
                  << " frame(s), " << FormatBytes(s.fileSize) << (s.HasThumbnail() ? ", thumbnail" : "") << "\n";
    }

    std::cout << "==> Verifying\n";
    for (const auto& f : files) {
        const KEL::ContainerVerification v = KEL::VerifyContainer(f);
        std::cout << "    " << fs::relative(f, out).string() << ": " << (v.IsIntact() ? "intact" : "NOT INTACT") << " ("
                  << v.atomRecords << " records)\n";
        allGood = allGood && v.IsIntact();
    }

    std::cout << "==> Thumbnails\n";
    fs::create_directories(out / "thumbnails", ec);
    for (std::uint32_t s = 0; s < options.streams; ++s) {
        const std::string png = (out / "thumbnails" / ("camera_" + std::to_string(s) + ".png")).string();
        const auto result = ExportThumbnail(files[0], s, false, png, &error);
        if (!result) {
            std::cout << "    camera " << s << ": " << error << "\n";
            allGood = false;
            continue;
        }
        std::cout << "    " << fs::relative(png, out).string() << " (" << result->width << "x" << result->height
                  << (result->stored ? ", stored in capture.kel" : ", made from the first frame") << ")\n";
    }

    std::cout << "==> Report\n";
    const std::string report = (out / "report.html").string();
    ReportContents contents;
    if (WriteHtmlReport({out.string(), (out / "per-camera").string()}, report, {}, &contents, &error)) {
        std::cout << "    report.html: " << contents.files << " file(s), " << contents.images << " frame image(s), "
                  << contents.timelines << " time line(s)\n";
    } else {
        std::cout << "    " << error << "\n";
        allGood = false;
    }

    // What the snapshot file holds, read from it: a press at a frame past
    // the end of the recording takes nothing.
    const KEL::ContainerSummary snapshot = KEL::SummarizeContainer((out / "snapshot.kel").string());
    const std::string snapshotText =
        snapshot.frames > 0
            ? std::to_string(snapshot.frames) + " frames taken at frame " + std::to_string(options.snapshotAt)
            : "empty: the recording ended before frame " + std::to_string(options.snapshotAt) +
                  ", where the snapshot was to be taken";
    std::cout << "\nDemo files are in " << out.string() << "\n"
              << "  capture.kel      all cameras, thumbnails, XML companion capture.kel.xml\n"
              << "  per-camera/      one file per camera (camera_<id>.kel)\n"
              << "  snapshot.kel     " << snapshotText << "\n"
              << "  merged.kel       the per-camera files merged back into one\n"
              << "  thumbnails/      PNG previews\n"
              << "  report.html      contact sheets, time lines and damage of every file\n"
              << "Try: kel info " << (out / "capture.kel").string() << "\n"
              << "Report: " << report << "\n";
    return allGood ? kExitOk : Fail("the demo's files are not all as expected (see above)");
}

}  // namespace

Command AddDemoCommand(CLI::App& root, const GlobalOptions& global) {
    auto options = std::make_shared<DemoOptions>();
    CLI::App* app = root.add_subcommand(
        "demo", "Record a synthetic multi-camera capture, read it back, verify it and export thumbnails");
    app->add_option("--out", options->out, "Output directory (default: kel-demo)")->type_name("DIR");
    app->add_option("--streams", options->streams, "Number of cameras")->check(CLI::Range(1, 64));
    app->add_option("--frames", options->frames, "Frames to record")->check(CLI::Range(1, 100000));
    app->add_option("--width", options->width, "Image width")->check(CLI::Range(16, 4096));
    app->add_option("--height", options->height, "Image height")->check(CLI::Range(16, 4096));
    app->add_option("--snapshot-at", options->snapshotAt, "Frame at which the snapshot is taken");
    app->add_option("--snapshot-frames", options->snapshotFrames, "Frames per snapshot")->check(CLI::Range(1, 100000));
    return {app, [&global, options] { return RunDemo(global, *options); }};
}

}  // namespace KelTool
