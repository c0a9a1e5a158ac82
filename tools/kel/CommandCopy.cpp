#include "Command.h"
#include "Conversion.h"
#include "StreamSelection.h"

namespace KelTool {

namespace {

struct CopyOptions {
    std::string input;
    std::string output;
    std::string streams;
    RangeOptions range;
    WriterOptions writer;
};

int RunCopy(const GlobalOptions& global, const CopyOptions& options) {
    const std::string output = WriterOutputPath(options.output);
    std::string error;
    if (!CheckOutputIsNotInput(output, {options.input}, &error)) {
        return Fail(error);
    }
    std::vector<std::uint16_t> streams;
    int exitCode = kExitOk;
    if (!SelectStreamsOrFail(options.input, options.streams, &streams, &exitCode)) {
        return exitCode;
    }
    auto source = OpenTake({options.input}, KelFrames::Layout::kSequence, streams, options.range, &exitCode);
    if (!source) {
        return exitCode;
    }
    return PlayConversion(
        global, std::move(source),
        MakeWriterEntry("TargetKEL2FileWriter", "TargetKEL2FileWriterAsync", options.output, options.writer),
        options.writer, {output});
}

}  // namespace

Command AddCopyCommand(CLI::App& root, const GlobalOptions& global) {
    auto options = std::make_shared<CopyOptions>();
    CLI::App* app = root.add_subcommand("copy", "Copy a container file (all or some streams) into a new one");
    app->add_option("IN", options->input, "The .kel file to read")->required();
    app->add_option("OUT", options->output, "The file to write (its extension becomes .kel)")->required();
    app->add_option("--streams", options->streams, "Comma-separated stream ids or names to copy (default: all)")
        ->type_name("LIST");
    AddRangeOptions(app, options->range);
    AddWriterOptions(app, options->writer);
    return {app, [&global, options] { return RunCopy(global, *options); }};
}

}  // namespace KelTool
