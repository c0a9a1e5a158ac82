#pragma once

#include <KEL/ReadKEL2File.h>

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

namespace KelTool {

// Options shared by every subcommand.
struct GlobalOptions {
    int verbosity = 0;                     // each -v raises the logger's stderr level by one
    std::vector<std::string> pluginDirs;   // --plugin-dir, in the order given
    std::vector<std::string> pluginPaths;  // --plugin, in the order given
};

// A subcommand: its CLI11 parser and the function that runs it once the
// command line is parsed. `run` returns the process exit code (0 ok, 1
// failure with a message already written to stderr).
struct Command {
    CLI::App* app = nullptr;
    std::function<int()> run;
};

// Exit codes of the tool.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;
// The run was stopped by Ctrl-C (the shell's convention, 128 + SIGINT); the
// files written so far are complete.
inline constexpr int kExitInterrupted = 130;

// Writes "kel: error: <message>" to stderr and returns kExitFailure.
int Fail(const std::string& message);

// "cannot open '<path>': <why>" for a reader whose Initialize failed with `code`.
std::string CannotOpen(const std::string& path, const KEL::ReadKEL2File& reader, KEL::KelErrorCode code);

// Each subcommand lives in its own file and registers itself on `root`.
// `global` is read when the command runs (after parsing), never before.
Command AddFiltersCommand(CLI::App& root, const GlobalOptions& global);
Command AddInfoCommand(CLI::App& root, const GlobalOptions& global);
Command AddVerifyCommand(CLI::App& root, const GlobalOptions& global);
Command AddRunCommand(CLI::App& root, const GlobalOptions& global);
Command AddCopyCommand(CLI::App& root, const GlobalOptions& global);
Command AddSplitCommand(CLI::App& root, const GlobalOptions& global);
Command AddConcatCommand(CLI::App& root, const GlobalOptions& global);
Command AddMergeCommand(CLI::App& root, const GlobalOptions& global);
Command AddThumbnailCommand(CLI::App& root, const GlobalOptions& global);
Command AddReportCommand(CLI::App& root, const GlobalOptions& global);
Command AddExportCommand(CLI::App& root, const GlobalOptions& global);
Command AddDemoCommand(CLI::App& root, const GlobalOptions& global);
Command AddCatCommand(CLI::App& root, const GlobalOptions& global);
Command AddDiffCommand(CLI::App& root, const GlobalOptions& global);
Command AddRecoverCommand(CLI::App& root, const GlobalOptions& global);
Command AddBatchCommand(CLI::App& root, const GlobalOptions& global);
Command AddViewCommand(CLI::App& root, const GlobalOptions& global);

}  // namespace KelTool
