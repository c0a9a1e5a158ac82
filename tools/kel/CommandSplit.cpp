#include <filesystem>

#include "Command.h"
#include "Conversion.h"
#include "StreamSelection.h"

namespace KelTool {

namespace {

struct SplitOptions {
    std::string input;
    std::string output;
    std::string streams;
    RangeOptions range;
    WriterOptions writer;
};

int RunSplit(const GlobalOptions& global, const SplitOptions& options) {
    std::vector<std::uint16_t> streams;
    int exitCode = kExitOk;
    if (!SelectStreamsOrFail(options.input, options.streams, &streams, &exitCode)) {
        return exitCode;
    }
    std::string error;
    // An existing directory (or a path ending in '/') receives files named
    // after the input.
    std::filesystem::path base(options.output);
    std::error_code ec;
    if (std::filesystem::is_directory(base, ec) || options.output.ends_with('/')) {
        base /= std::filesystem::path(options.input).stem().string() + ".kel";
    }
    std::vector<std::string> outputs;
    for (const std::uint16_t id : streams) {
        outputs.push_back(PerStreamOutputPath(base.string(), id));
        if (!CheckOutputIsNotInput(outputs.back(), {options.input}, &error)) {
            return Fail(error);
        }
    }
    auto source = OpenTake({options.input}, KelFrames::Layout::kSequence, streams, options.range, &exitCode);
    if (!source) {
        return exitCode;
    }
    return PlayConversion(global, std::move(source),
                          MakeWriterEntry("TargetKEL2FilePerStreamWriter", "TargetKEL2FilePerStreamWriterAsync",
                                          base.string(), options.writer),
                          options.writer, outputs);
}

}  // namespace

Command AddSplitCommand(CLI::App& root, const GlobalOptions& global) {
    auto options = std::make_shared<SplitOptions>();
    CLI::App* app = root.add_subcommand("split", "Write each stream of a container file into a file of its own");
    app->add_option("IN", options->input, "The .kel file to read")->required();
    app->add_option("OUT", options->output,
                    "Base path: stream N goes to <stem>_N.kel beside it; a directory takes the input's name")
        ->required();
    app->add_option("--streams", options->streams, "Comma-separated stream ids or names to write (default: all)")
        ->type_name("LIST");
    AddRangeOptions(app, options->range);
    AddWriterOptions(app, options->writer);
    return {app, [&global, options] { return RunSplit(global, *options); }};
}

}  // namespace KelTool
