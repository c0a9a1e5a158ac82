#include <iostream>
#include <optional>

#include "Command.h"
#include "ThumbnailExport.h"

namespace KelTool {

namespace {

struct ThumbnailOptions {
    std::string path;
    std::string output;
    std::optional<std::uint32_t> stream;
    bool regenerate = false;
};

int RunThumbnail(const ThumbnailOptions& options) {
    std::string error;
    const auto result = ExportThumbnail(options.path, options.stream, options.regenerate, options.output, &error);
    if (!result) {
        return Fail(error);
    }
    std::cout << options.output << ": " << result->width << "x" << result->height << " thumbnail of stream "
              << result->stream << " (" << (result->stored ? "stored in the file" : "made from the first frame")
              << ")\n";
    return kExitOk;
}

}  // namespace

Command AddThumbnailCommand(CLI::App& root, const GlobalOptions& /*global*/) {
    auto options = std::make_shared<ThumbnailOptions>();
    CLI::App* app = root.add_subcommand("thumbnail", "Write the thumbnail of a stream's first atom as a PNG file");
    app->add_option("FILE", options->path, "The .kel file")->required();
    app->add_option("-o,--output", options->output, "The PNG file to write")->required()->type_name("PNG");
    app->add_option("--stream", options->stream, "Stream id (default: the file's first stream)")
        ->type_name("N")
        ->check(CLI::Range(0, 65535));
    app->add_flag("--regenerate", options->regenerate, "Make a new thumbnail even when one is stored");
    return {app, [options] { return RunThumbnail(*options); }};
}

}  // namespace KelTool
