#include <KEL/ContainerJson.h>
#include <KEL/ReadKEL2File.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <map>
#include <thread>

#include "Command.h"
#include "SummaryText.h"

namespace KelTool {

namespace {

struct InfoOptions {
    std::vector<std::string> paths;
    std::string path;  // the one being shown
    bool json = false;
    bool follow = false;
    double interval = 0.5;
};

volatile std::sig_atomic_t gStopFollowing = 0;
extern "C" void OnFollowInterrupt(int /*signal*/) { gStopFollowing = 1; }

// Prints the atoms of a recording that is still being written as they
// arrive, one line per stream that grew, until the writer closes the file
// (exit 0) or Ctrl-C (exit 130).
int Follow(const InfoOptions& options) {
    KEL::ReadKEL2File reader(options.path.c_str());
    if (const KEL::KelErrorCode code = reader.Initialize(); code != KEL::KEL_OK) {
        return Fail("cannot open '" + options.path + "': " + reader.GetLastError());
    }
    struct sigaction action {};
    action.sa_handler = OnFollowInterrupt;
    struct sigaction previous {};
    sigaction(SIGINT, &action, &previous);
    std::map<std::uint16_t, std::uint32_t> known;
    auto report = [&] {
        for (int i = 0; i < reader.GetNumStreams(); ++i) {
            const std::uint16_t id = reader.GetStreamId(i);
            const std::uint32_t frames = reader.GetNumFrames(id);
            std::uint32_t& before = known[id];
            if (frames == before) {
                continue;
            }
            const auto numbers = reader.GetFrameNumbers(id);
            const auto stamps = reader.GetTimeStamps(id);
            std::cout << "stream " << id << ": " << frames << " frame(s) (+" << (frames - before) << "), last frame "
                      << numbers.back() << " at " << FormatDuration(stamps.back() - stamps.front()) << std::endl;
            before = frames;
        }
    };
    std::cout << options.path << ": following" << (reader.IsClosed() ? " (already closed)" : "") << std::endl;
    report();
    while (!reader.IsClosed() && gStopFollowing == 0) {
        std::this_thread::sleep_for(std::chrono::duration<double>(options.interval));
        if (reader.Refresh() != KEL::KEL_OK) {
            sigaction(SIGINT, &previous, nullptr);
            return Fail("cannot read '" + options.path + "': " + reader.GetLastError());
        }
        report();
    }
    sigaction(SIGINT, &previous, nullptr);
    std::cout << options.path << ": " << reader.GetNumAtoms() << " atom(s), "
              << (reader.IsClosed() ? "closed by its writer" : "still open") << std::endl;
    return gStopFollowing != 0 ? kExitInterrupted : kExitOk;
}

// Shows one file or directory; with `json`, adds its object to `out`
// instead of printing it.
int InfoOf(const std::string& path, bool json, nlohmann::ordered_json* out) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) {
        std::vector<KEL::ContainerSummary> summaries;
        for (const auto& file : ListContainerFiles(path)) {
            summaries.push_back(KEL::SummarizeContainer(file));
        }
        bool allOk = true;
        for (const auto& s : summaries) {
            allOk = allOk && s.Ok();
        }
        if (json) {
            nlohmann::ordered_json files = nlohmann::ordered_json::array();
            for (const auto& s : summaries) {
                files.push_back(KEL::ToJson(s));
            }
            out->push_back(nlohmann::ordered_json{{"directory", path}, {"files", std::move(files)}});
        } else {
            PrintDirectorySummary(std::cout, path, summaries);
        }
        return allOk ? kExitOk : Fail("some files of '" + path + "' cannot be opened");
    }
    const KEL::ContainerSummary summary = KEL::SummarizeContainer(path);
    if (json) {
        out->push_back(KEL::ToJson(summary));
    } else if (summary.Ok()) {
        PrintContainerSummary(std::cout, summary);
    }
    return summary.Ok() ? kExitOk : Fail("cannot open '" + path + "': " + summary.error);
}

int RunInfo(InfoOptions& options) {
    if (options.follow) {
        if (options.paths.size() != 1) {
            Fail("--follow takes one file");
            return kExitUsage;
        }
        options.path = options.paths.front();
        return Follow(options);
    }
    int exitCode = kExitOk;
    nlohmann::ordered_json shown = nlohmann::ordered_json::array();
    for (std::size_t i = 0; i < options.paths.size(); ++i) {
        if (i > 0 && !options.json) {
            std::cout << "\n";
        }
        exitCode = std::max(exitCode, InfoOf(options.paths[i], options.json, &shown));
    }
    if (options.json) {
        // One path gives its object, several an array of them.
        std::cout << (options.paths.size() == 1 ? shown[0] : shown).dump(2) << "\n";
    }
    return exitCode;
}

}  // namespace

Command AddInfoCommand(CLI::App& root, const GlobalOptions& /*global*/) {
    auto options = std::make_shared<InfoOptions>();
    CLI::App* app = root.add_subcommand("info", "Describe a container file, or every .kel file of a directory");
    app->add_option("PATH", options->paths, ".kel files or directories")->required();
    app->add_flag("--json", options->json, "Print JSON");
    app->add_flag("-f,--follow", options->follow,
                  "Follow a recording being written: print its new atoms until its writer closes it (or Ctrl-C)");
    app->add_option("--interval", options->interval, "Seconds between looks at a followed file (default 0.5)")
        ->check(CLI::PositiveNumber);
    return {app, [options] { return RunInfo(*options); }};
}

}  // namespace KelTool
