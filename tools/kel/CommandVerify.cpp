#include <KEL/ContainerJson.h>
#include <KEL/ContainerVerifier.h>

#include <iostream>
#include <nlohmann/json.hpp>

#include "Command.h"
#include "SummaryText.h"

namespace KelTool {

namespace {

struct VerifyOptions {
    std::vector<std::string> paths;
    bool json = false;
    std::size_t maxProblems = 20;
};

void PrintReport(std::ostream& out, const std::string& path, const KEL::ContainerVerification& v,
                 std::size_t maxProblems) {
    out << path << ": " << v.Verdict() << "\n";
    if (v.openResult != KEL::KEL_OK) {
        out << "  a reader cannot open it: " << v.openError << " (" << KEL::KelErrorCodeName(v.openResult) << ")\n";
        return;
    }
    out << "  size " << FormatBytes(v.fileSize) << ", format " << v.formatVersion << ", " << v.streams << " stream(s), "
        << v.atomRecords << " atom record(s)\n";
    out << "  index: "
        << (!v.indexPresent ? "missing (the file was not closed)"
            : v.indexValid  ? "valid"
                            : "damaged")
        << "\n";
    if (v.headerDamaged) {
        out << "  file header damaged: the file's identity was taken from its records\n";
    }
    if (v.damagedRecords > 0) {
        out << "  damaged: " << v.damagedRecords << " record(s) or region(s), " << v.damagedBytes << " byte(s)";
        if (v.foreignRecords > 0) {
            out << ", among them " << v.foreignRecords << " record(s) of another file";
        }
        out << "\n";
    }
    if (v.truncatedTailBytes > 0) {
        out << "  incomplete last record: " << v.truncatedTailBytes << " byte(s) (the writer stopped mid-record)\n";
    }
    const std::size_t shown = std::min(maxProblems, v.problems.size());
    for (std::size_t i = 0; i < shown; ++i) {
        const auto& p = v.problems[i];
        out << "    at offset " << p.offset;
        if (p.length > 0) {
            out << " (" << p.length << " bytes)";
        }
        out << ": " << p.what << "\n";
    }
    if (shown < v.problems.size()) {
        out << "    ... and " << (v.problems.size() - shown) << " more problem(s)\n";
    }
    for (const auto& w : v.warnings) {
        out << "  warning: " << w.what << " (offset " << w.offset << ")\n";
    }
    if (!v.IsIntact() && v.openResult == KEL::KEL_OK) {
        out << "  a reader would recover " << v.recoverableAtoms << " atom(s)"
            << (v.indexValid ? " through the index" : " by walking the records") << "\n";
    }
}

int RunVerify(const VerifyOptions& options) {
    bool allIntact = true;
    std::size_t unreadable = 0;
    nlohmann::ordered_json reports = nlohmann::ordered_json::array();
    for (const auto& path : options.paths) {
        const KEL::ContainerVerification v = KEL::VerifyContainer(path);
        allIntact = allIntact && v.IsIntact();
        unreadable += v.openResult != KEL::KEL_OK ? 1 : 0;
        if (options.json) {
            reports.push_back(KEL::ToJson(v, path));
        } else {
            PrintReport(std::cout, path, v, options.maxProblems);
        }
    }
    if (options.json) {
        // An array whatever the number of files, so that scripts read one shape.
        std::cout << reports.dump(2) << "\n";
    }
    if (unreadable > 0) {
        return Fail(options.paths.size() == 1 ? "the file cannot be read"
                                              : std::to_string(unreadable) + " file(s) cannot be read");
    }
    if (!allIntact) {
        std::cerr << "kel: " << (options.paths.size() == 1 ? "the file is" : "some files are") << " not intact\n";
        return kExitFailure;
    }
    return kExitOk;
}

}  // namespace

Command AddVerifyCommand(CLI::App& root, const GlobalOptions& /*global*/) {
    auto options = std::make_shared<VerifyOptions>();
    CLI::App* app = root.add_subcommand(
        "verify", "Check the header, index and every record checksum of container files; exit 1 unless intact");
    app->add_option("FILE", options->paths, "The .kel file(s) to check")->required();
    app->add_flag("--json", options->json, "Print JSON");
    app->add_option("--max-problems", options->maxProblems, "Problems listed per file (default 20)")->type_name("N");
    return {app, [options] { return RunVerify(*options); }};
}

}  // namespace KelTool
