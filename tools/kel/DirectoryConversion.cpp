#include "DirectoryConversion.h"

#include <filesystem>

#include "Conversion.h"
#include "SummaryText.h"

namespace KelTool {

namespace {

struct JoinOptions {
    // The files and directories to join, then the output.
    std::vector<std::string> paths;
    WriterOptions writer;
};

int RunJoin(const GlobalOptions& global, const JoinOptions& options, KelFrames::Layout layout) {
    const std::string output = WriterOutputPath(options.paths.back());
    // A directory contributes its container files in the order the
    // sequential source plays them (byte order of their paths).
    std::vector<std::string> files;
    for (std::size_t i = 0; i + 1 < options.paths.size(); ++i) {
        const std::string& path = options.paths[i];
        std::error_code ec;
        if (std::filesystem::is_directory(path, ec)) {
            const auto listed = ListContainerFiles(path);
            if (listed.empty()) {
                return Fail("'" + path + "' holds no .kel file");
            }
            files.insert(files.end(), listed.begin(), listed.end());
        } else {
            files.push_back(path);
        }
    }
    std::string error;
    if (!CheckOutputIsNotInput(output, files, &error)) {
        return Fail(error);
    }
    int exitCode = kExitOk;
    auto source = OpenTake(files, layout, {}, {}, &exitCode);
    if (!source) {
        return exitCode;
    }
    return PlayConversion(
        global, std::move(source),
        MakeWriterEntry("TargetKEL2FileWriter", "TargetKEL2FileWriterAsync", options.paths.back(), options.writer),
        options.writer, {output});
}

}  // namespace

Command AddDirectoryConversionCommand(CLI::App& root, const GlobalOptions& global, const std::string& name,
                                      const std::string& description, KelFrames::Layout layout) {
    auto options = std::make_shared<JoinOptions>();
    CLI::App* app = root.add_subcommand(name, description);
    app->add_option("PATH", options->paths,
                    ".kel files or directories of them, then the file to write (its extension becomes .kel)")
        ->required()
        ->expected(2, -1);
    AddWriterOptions(app, options->writer);
    return {app, [&global, options, layout] { return RunJoin(global, *options, layout); }};
}

}  // namespace KelTool
