#include <KEL/ReadKEL2File.h>

#include <filesystem>
#include <set>
#include <sstream>

#include "Command.h"
#include "Conversion.h"

namespace KelTool {

namespace {

struct SplitOptions {
    std::string input;
    std::string output;
    std::string streams;
    WriterOptions writer;
};

// The stream ids the split will write: the file's streams, narrowed to the
// listed ones (ids that are not numbers are left to the source to report).
std::vector<std::uint16_t> SelectedStreams(KEL::ReadKEL2File& reader, const std::string& list) {
    std::set<long> wanted;
    std::stringstream in(list);
    for (std::string piece; std::getline(in, piece, ',');) {
        try {
            wanted.insert(std::stol(piece));
        } catch (const std::exception&) {
        }
    }
    std::vector<std::uint16_t> ids;
    for (int i = 0; i < reader.GetNumStreams(); ++i) {
        const std::uint16_t id = reader.GetStreamId(i);
        if (wanted.empty() || wanted.contains(id)) {
            ids.push_back(id);
        }
    }
    return ids;
}

int RunSplit(const GlobalOptions& global, const SplitOptions& options) {
    KEL::ReadKEL2File reader(options.input.c_str());
    if (const auto code = reader.Initialize(); code != KEL::KEL_OK) {
        return Fail("cannot open '" + options.input +
                    "': " + (reader.GetLastError().empty() ? KEL::KelErrorCodeName(code) : reader.GetLastError()));
    }
    // An existing directory (or a path ending in '/') receives files named
    // after the input.
    std::filesystem::path base(options.output);
    std::error_code ec;
    if (std::filesystem::is_directory(base, ec) || options.output.ends_with('/')) {
        base /= std::filesystem::path(options.input).stem().string() + ".kel";
    }
    std::vector<std::string> outputs;
    std::string error;
    for (const std::uint16_t id : SelectedStreams(reader, options.streams)) {
        outputs.push_back(PerStreamOutputPath(base.string(), id));
        if (!CheckOutputIsNotInput(outputs.back(), {options.input}, &error)) {
            return Fail(error);
        }
    }
    GraphDescription description;
    description.filters.push_back(
        {"SourceKEL2FileReader",
         "in",
         {{"KEL File Path", options.input}, {"Included streams", StreamListOrAll(options.input, options.streams)}}});
    description.filters.push_back(MakeWriterEntry("TargetKEL2FilePerStreamWriter", "TargetKEL2FilePerStreamWriterAsync",
                                                  base.string(), options.writer));
    return PlayConversion(global, description, options.writer, outputs);
}

}  // namespace

Command AddSplitCommand(CLI::App& root, const GlobalOptions& global) {
    auto options = std::make_shared<SplitOptions>();
    CLI::App* app = root.add_subcommand("split", "Write each stream of a container file into a file of its own");
    app->add_option("IN", options->input, "The .kel file to read")->required();
    app->add_option("OUT", options->output,
                    "Base path: stream N goes to <stem>_N.kel beside it; a directory takes the input's name")
        ->required();
    app->add_option("--streams", options->streams, "Comma-separated stream ids to write (default: all)")
        ->type_name("LIST");
    AddWriterOptions(app, options->writer);
    return {app, [&global, options] { return RunSplit(global, *options); }};
}

}  // namespace KelTool
