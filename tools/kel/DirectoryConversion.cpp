#include "DirectoryConversion.h"

#include <filesystem>

#include "ContainerSummary.h"
#include "Conversion.h"

namespace KelTool {

namespace {

struct DirectoryOptions {
    std::string directory;
    std::string output;
    WriterOptions writer;
};

int RunDirectoryConversion(const GlobalOptions& global, const DirectoryOptions& options,
                           const std::string& sourceClass) {
    std::error_code ec;
    if (!std::filesystem::is_directory(options.directory, ec)) {
        return Fail("'" + options.directory + "' is not a directory");
    }
    const std::string output = WriterOutputPath(options.output);
    std::string error;
    if (!CheckOutputIsNotInput(output, ListContainerFiles(options.directory), &error)) {
        return Fail(error);
    }
    GraphDescription description;
    description.filters.push_back({sourceClass, "in", {{"KEL files dir", options.directory}}});
    description.filters.push_back(
        MakeWriterEntry("TargetKEL2FileWriter", "TargetKEL2FileWriterAsync", options.output, options.writer));
    return PlayConversion(global, description, options.writer, {output});
}

}  // namespace

Command AddDirectoryConversionCommand(CLI::App& root, const GlobalOptions& global, const std::string& name,
                                      const std::string& description, const std::string& sourceClass) {
    auto options = std::make_shared<DirectoryOptions>();
    CLI::App* app = root.add_subcommand(name, description);
    app->add_option("DIR", options->directory, "Directory of .kel files")->required();
    app->add_option("OUT", options->output, "The file to write (its extension becomes .kel)")->required();
    AddWriterOptions(app, options->writer);
    return {app, [&global, options, sourceClass] { return RunDirectoryConversion(global, *options, sourceClass); }};
}

}  // namespace KelTool
