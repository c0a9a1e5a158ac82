// kel: inspect, verify, convert and record KEL container files, and play
// graphs of filters from the loaded plugins.

#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <iostream>

#include "Command.h"
#include "PluginSetup.h"

namespace {

// The first word of the command line that is neither a global option nor its
// value, when it does not name a command ("" otherwise).
std::string UnknownCommand(const CLI::App& app, int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--plugin-dir" || arg == "--plugin") {
            ++i;
            continue;
        }
        if (arg.starts_with("-")) {
            continue;
        }
        for (const CLI::App* sub : app.get_subcommands({})) {
            if (sub->check_name(arg)) {
                return {};
            }
        }
        return arg;
    }
    return {};
}

}  // namespace

int main(int argc, char** argv) {
    using namespace KelTool;

    CLI::App app{"kel: record, play, inspect and convert KEL container files (.kel)", "kel"};
    app.require_subcommand(1);
    // Global options may also follow the command ("kel filters --plugin X");
    // commands made after this inherit it.
    app.fallthrough();
    app.set_help_all_flag("--help-all", "Show the help of every command");

    GlobalOptions global;
    app.add_flag("-v,--verbose", global.verbosity, "More log output on stderr (repeat for more)");
    app.add_option("--plugin-dir", global.pluginDirs, "Load the plugins of this directory (repeatable)")
        ->type_name("DIR");
    app.add_option("--plugin", global.pluginPaths, "Load this plugin library (repeatable)")->type_name("PATH");

    std::vector<Command> commands{
        AddFiltersCommand(app, global), AddInfoCommand(app, global),   AddVerifyCommand(app, global),
        AddRunCommand(app, global),     AddCopyCommand(app, global),   AddSplitCommand(app, global),
        AddConcatCommand(app, global),  AddMergeCommand(app, global),  AddThumbnailCommand(app, global),
        AddReportCommand(app, global),  AddExportCommand(app, global), AddDemoCommand(app, global),
        AddCatCommand(app, global),     AddDiffCommand(app, global),   AddRecoverCommand(app, global),
        AddBatchCommand(app, global),   AddViewCommand(app, global),
    };

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        if (const std::string unknown = UnknownCommand(app, argc, argv); !unknown.empty()) {
            std::cerr << "kel: unknown command '" << unknown << "'\nRun with --help for the list of commands.\n";
        } else {
            app.exit(e);
        }
        return kExitUsage;
    }

    // A file size limit must fail the write (EFBIG, reported as such) rather
    // than kill the process with the recording half written.
    std::signal(SIGXFSZ, SIG_IGN);
    try {
        ApplyVerbosity(global.verbosity);
        for (const auto& command : commands) {
            if (command.app->parsed()) {
                return command.run();
            }
        }
    } catch (const std::exception& e) {
        return Fail(e.what());
    }
    return Fail("no command given");
}
