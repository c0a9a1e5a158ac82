#include <iostream>

#include "Command.h"
#include "GraphBuilder.h"
#include "GraphRunner.h"
#include "PluginSetup.h"

namespace KelTool {

namespace {

struct RunCommandOptions {
    std::string graphPath;
    std::vector<std::string> overrides;
    std::optional<std::uint32_t> loops;
    std::optional<std::uint32_t> frames;
    bool quiet = false;
    bool skipDamaged = false;
    bool overwrite = false;
    bool keepGoing = false;
};

int RunRun(const GlobalOptions& global, const RunCommandOptions& options) {
    std::string error;
    auto description = LoadGraphDescription(options.graphPath, &error);
    if (!description) {
        return Fail(error);
    }
    for (const auto& assignment : options.overrides) {
        if (!ApplyParamOverride(*description, assignment, &error)) {
            return Fail(error);
        }
    }
    if (options.loops) {
        description->loops = *options.loops;
    }
    if (options.frames) {
        description->frameCount = *options.frames;
    }
    if (!LoadPlugins(global, &error)) {
        return Fail(error);
    }
    KEL::Graph graph;
    if (!BuildGraph(*description, graph, &error)) {
        return Fail(error);
    }
    const GraphRunOutcome outcome =
        RunGraph(graph, *description, !options.quiet,
                 {.acceptDamage = options.skipDamaged, .overwrite = options.overwrite, .keepGoing = options.keepGoing});
    if (!options.quiet || !outcome.ok) {
        PrintRunSummary(std::cout, outcome);
    }
    PrintWarnings(std::cerr, outcome);
    PrintDamage(std::cerr, outcome, options.skipDamaged);
    if (!outcome.ok) {
        return Fail(outcome.error);
    }
    return outcome.interrupted ? kExitInterrupted : kExitOk;
}

}  // namespace

Command AddRunCommand(CLI::App& root, const GlobalOptions& global) {
    auto options = std::make_shared<RunCommandOptions>();
    CLI::App* app = root.add_subcommand("run", "Build and play a graph described in a JSON file");
    app->add_option("GRAPH", options->graphPath, "The graph description (JSON)")->required();
    app->add_option("--set", options->overrides, "Override a parameter: INSTANCE.PARAMETER=VALUE (repeatable)")
        ->type_name("ASSIGNMENT");
    app->add_option("--loops", options->loops, "Number of passes (0: until stopped); overrides the file")
        ->type_name("N");
    app->add_option("--frames", options->frames, "Frames per pass; overrides the file")->type_name("N");
    app->add_flag("-q,--quiet", options->quiet, "No progress bar and no summary unless the run fails");
    app->add_flag("--overwrite", options->overwrite,
                  "Let the writers replace files that exist (default: refuse to start)");
    app->add_flag("--keep-going", options->keepGoing,
                  "Play on after a target failed to write (default: stop after the frame)");
    app->add_flag("--skip-damaged", options->skipDamaged,
                  "Leave out frames whose atoms are damaged and succeed (default: name them and fail)");
    return {app, [&global, options] { return RunRun(global, *options); }};
}

}  // namespace KelTool
