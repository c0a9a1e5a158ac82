#include <filesystem>
#include <iostream>

#include "Command.h"
#include "ContainerSummary.h"

namespace KelTool {

namespace {

struct InfoOptions {
    std::string path;
    bool json = false;
};

int RunInfo(const InfoOptions& options) {
    std::error_code ec;
    if (std::filesystem::is_directory(options.path, ec)) {
        std::vector<ContainerSummary> summaries;
        for (const auto& file : ListContainerFiles(options.path)) {
            summaries.push_back(SummarizeContainer(file));
        }
        bool allOk = true;
        for (const auto& s : summaries) {
            allOk = allOk && s.Ok();
        }
        if (options.json) {
            nlohmann::ordered_json files = nlohmann::ordered_json::array();
            for (const auto& s : summaries) {
                files.push_back(ToJson(s));
            }
            std::cout << nlohmann::ordered_json{{"directory", options.path}, {"files", std::move(files)}}.dump(2)
                      << "\n";
        } else {
            PrintDirectorySummary(std::cout, options.path, summaries);
        }
        return allOk ? kExitOk : Fail("some files of '" + options.path + "' cannot be opened");
    }

    const ContainerSummary summary = SummarizeContainer(options.path);
    if (!summary.Ok()) {
        if (options.json) {
            std::cout << ToJson(summary).dump(2) << "\n";
        }
        return Fail("cannot open '" + options.path + "': " + summary.error);
    }
    if (options.json) {
        std::cout << ToJson(summary).dump(2) << "\n";
    } else {
        PrintContainerSummary(std::cout, summary);
    }
    return kExitOk;
}

}  // namespace

Command AddInfoCommand(CLI::App& root, const GlobalOptions& /*global*/) {
    auto options = std::make_shared<InfoOptions>();
    CLI::App* app = root.add_subcommand("info", "Describe a container file, or every .kel file of a directory");
    app->add_option("PATH", options->path, "A .kel file or a directory")->required();
    app->add_flag("--json", options->json, "Print JSON");
    return {app, [options] { return RunInfo(*options); }};
}

}  // namespace KelTool
