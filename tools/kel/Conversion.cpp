#include "Conversion.h"

#include <KEL/ReadKEL2File.h>

#include <cmath>
#include <filesystem>
#include <iostream>
#include <tuple>

#include "FrameSource.h"
#include "GraphBuilder.h"
#include "GraphRunner.h"
#include "PluginSetup.h"
#include "utils/ParameterNames.h"

namespace KelTool {

namespace fs = std::filesystem;

void AddWriterOptions(CLI::App* app, WriterOptions& options) {
    CLI::Option* async = app->add_flag("--async", options.async, "Write on a thread of its own (asynchronous target)");
    app->add_option("--buffer", options.buffer, "Frames the asynchronous target may queue (\"Buffer size\")")
        ->type_name("N")
        ->needs(async);
    app->add_flag("--drop,!--no-drop", options.drop,
                  "Drop frames when the queue is full instead of waiting (default: wait)")
        ->needs(async);
    app->add_flag("--xml", options.xml, "Write an XML companion next to each file");
    app->add_flag("--thumbnail", options.thumbnail, "Store a thumbnail in the first atom of each stream");
    app->add_flag("-q,--quiet", options.quiet, "No progress bar and no summary");
    app->add_flag("--overwrite", options.overwrite, "Replace output files that exist (default: refuse to start)");
    app->add_flag("--skip-damaged", options.skipDamaged,
                  "Leave out frames whose atoms are damaged and succeed (default: name them and fail)");
    CLI::Option* compress =
        app->add_option_function<std::string>(
               "--compress",
               [&options](const std::string& text) {
                   KEL::CompressionSetting setting;
                   std::string error;
                   if (!KEL::ParseCompression(text, setting, error)) {
                       throw CLI::ValidationError("--compress", error);
                   }
                   options.compression = setting;
               },
               "Store blobs compressed: zstd or zstd:LEVEL (1 fastest, default; up to 19)")
            ->type_name("CODEC");
    app->add_flag_callback(
           "--decompress", [&options] { options.compression = KEL::CompressionSetting{}; },
           "Store blobs as they are (the default unless KEL_COMPRESSION says otherwise)")
        ->excludes(compress);
}

FilterEntry MakeWriterEntry(const std::string& syncClass, const std::string& asyncClass, const std::string& outputPath,
                            const WriterOptions& options) {
    FilterEntry entry;
    entry.className = options.async ? asyncClass : syncClass;
    entry.name = "out";
    entry.params = {
        {Kel2File::kParamKelFilePath, outputPath},
        {Kel2File::kParamWriteXml, options.xml ? "true" : "false"},
        {Kel2File::kParamCreateThumbnail, options.thumbnail ? "true" : "false"},
    };
    if (options.async) {
        if (options.buffer) {
            entry.params.emplace_back(Kel2File::kParamBufferSize, std::to_string(*options.buffer));
        }
        entry.params.emplace_back(Kel2File::kParamDropWhenFull, options.drop ? "true" : "false");
    }
    entry.params.emplace_back(Kel2File::kParamEnableRecording, "true");
    return entry;
}

bool CheckOutputIsNotInput(const std::string& output, const std::vector<std::string>& inputs, std::string* error) {
    for (const auto& input : inputs) {
        std::error_code ec;
        if (fs::equivalent(output, input, ec) && !ec) {
            *error = "the output '" + output + "' is the input '" + input + "'; choose another output path";
            return false;
        }
    }
    return true;
}

void AddRangeOptions(CLI::App* app, RangeOptions& options) {
    app->add_option("--from", options.from, "First frame: a position (120) or seconds from the start (2.5s)")
        ->type_name("F|Ss");
    app->add_option("--to", options.to, "End (excluded): a position or seconds from the start")->type_name("F|Ss");
}

namespace {

// The position `text` names in `reader`: a frame position, or seconds after
// the first frame's time stamp. False for a malformed text.
bool ParseBound(const KelFrames::FrameReader& reader, const std::string& text, std::uint32_t* position) {
    if (text.empty()) {
        return false;
    }
    std::size_t used = 0;
    try {
        if (text.back() == 's') {
            const double seconds = std::stod(text.substr(0, text.size() - 1), &used);
            if (used != text.size() - 1 || !(seconds >= 0)) {
                return false;
            }
            *position = reader.PositionAt(reader.TimeOf(0) + static_cast<std::int64_t>(std::llround(seconds * 1e6)));
            return true;
        }
        const unsigned long frame = std::stoul(text, &used);
        if (used != text.size() || text.front() == '-') {
            return false;
        }
        *position = static_cast<std::uint32_t>(std::min<unsigned long>(frame, reader.NumFrames()));
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

std::unique_ptr<KEL::Source> OpenTake(const std::vector<std::string>& files, KelFrames::Layout layout,
                                      const std::vector<std::uint16_t>& streams, const RangeOptions& range,
                                      int* exitCode) {
    std::string error;
    auto reader = KelFrames::FrameReader::Open(files, layout, streams, &error);
    if (!reader) {
        *exitCode = Fail(error);
        return nullptr;
    }
    for (const std::string& warning : reader->Warnings()) {
        std::cerr << "kel: warning: " << warning << "\n";
    }
    std::uint32_t begin = 0;
    std::uint32_t end = reader->NumFrames();
    for (const auto& [text, bound, name] :
         {std::tuple{range.from, &begin, "--from"}, std::tuple{range.to, &end, "--to"}}) {
        if (!text.empty() && !ParseBound(*reader, text, bound)) {
            Fail(std::string(name) + " '" + text + "' is neither a frame position (120) nor seconds (2.5s)");
            *exitCode = kExitUsage;
            return nullptr;
        }
    }
    return std::make_unique<FrameSource>(std::move(reader), begin, std::max(begin, end));
}

int PlayConversion(const GlobalOptions& global, std::unique_ptr<KEL::Source> source, const FilterEntry& writer,
                   const WriterOptions& options, const std::vector<std::string>& expectedOutputs) {
    std::string error;
    if (!LoadPlugins(global, &error)) {
        return Fail(error);
    }
    KEL::Graph graph;
    GraphDescription description;
    description.filters.push_back(writer);
    description.compression = options.compression;
    KEL::Filter* in = graph.AddFilter(std::move(source), "in", &error);
    if (in == nullptr || !BuildGraph(description, graph, &error)) {
        return Fail(error);
    }
    if (graph.Connect(in, graph.FindFilter(writer.name), &error) != KEL::KEL_OK) {
        return Fail(error);
    }
    const GraphRunOutcome outcome = RunGraph(graph, description, !options.quiet,
                                             {.acceptDamage = options.skipDamaged, .overwrite = options.overwrite});
    if (!options.quiet || !outcome.ok) {
        PrintRunSummary(std::cout, outcome);
    }
    PrintWarnings(std::cerr, outcome);
    PrintDamage(std::cerr, outcome, options.skipDamaged);
    if (!outcome.ok) {
        return Fail(outcome.error);
    }
    if (outcome.interrupted) {
        std::cerr << "kel: interrupted; the output holds the frames written so far\n";
        return kExitInterrupted;
    }
    bool allWritten = true;
    for (const auto& path : expectedOutputs) {
        KEL::ReadKEL2File reader(path.c_str());
        if (reader.Initialize() != KEL::KEL_OK) {
            std::cerr << "kel: error: expected output '" << path << "' was not written\n";
            allWritten = false;
        }
    }
    return allWritten ? kExitOk : kExitFailure;
}

}  // namespace KelTool
