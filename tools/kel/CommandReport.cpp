#include <iostream>

#include "Command.h"
#include "HtmlReport.h"

namespace KelTool {

namespace {

struct ReportCommandOptions {
    std::vector<std::string> paths;
    std::string output = "report.html";
    ReportOptions report;
};

int RunReport(const ReportCommandOptions& options) {
    ReportContents contents;
    std::string error;
    if (!WriteHtmlReport(options.paths, options.output, options.report, &contents, &error)) {
        return Fail(error);
    }
    std::cout << options.output << ": " << contents.files << " file(s), " << contents.timelines << " stream(s), "
              << contents.images << " frame image(s)";
    if (contents.unreadableSamples > 0) {
        std::cout << ", " << contents.unreadableSamples << " sampled frame(s) damaged";
    }
    std::cout << "\n";
    if (contents.unopenable > 0) {
        return Fail(std::to_string(contents.unopenable) + " file(s) could not be opened (see the report)");
    }
    return kExitOk;
}

}  // namespace

Command AddReportCommand(CLI::App& root, const GlobalOptions& /*global*/) {
    auto options = std::make_shared<ReportCommandOptions>();
    CLI::App* app = root.add_subcommand(
        "report", "Write one self-contained HTML page about recordings: facts, damage, contact sheets, time lines");
    app->add_option("PATH", options->paths, "Container files or directories of them")->required();
    app->add_option("-o,--output", options->output, "The HTML file to write (default: report.html)")->type_name("HTML");
    app->add_option("--samples", options->report.samplesPerStream, "Frames shown per stream (default 8)")
        ->check(CLI::Range(1, 64));
    return {app, [options] { return RunReport(*options); }};
}

}  // namespace KelTool
