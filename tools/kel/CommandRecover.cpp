#include <KEL/ReadKEL2File.h>
#include <KEL/SerializeToKel.h>

#include <iostream>

#include "Command.h"
#include "Conversion.h"

namespace KelTool {

namespace {

struct RecoverOptions {
    std::string input;
    std::string output;
    bool overwrite = false;
};

// Rewrites every intact atom record of the input, as stored and in file
// order, into a new, closed file: stream information and the other
// stream-level layers stay in each stream's first atom, frame numbers and
// time stamps as they were, partial frames kept.
int RunRecover(const RecoverOptions& options) {
    std::string error;
    if (!CheckOutputIsNotInput(options.output, {options.input}, &error)) {
        return Fail(error);
    }
    KEL::ReadKEL2File reader(options.input.c_str());
    if (const KEL::KelErrorCode code = reader.Initialize(); code != KEL::KEL_OK) {
        return Fail(CannotOpen(options.input, reader, code));
    }
    KEL::SerializeToKel writer(options.output.c_str(), options.overwrite, KEL::CURRENT_VERSION, false);
    if (const KEL::KelErrorCode code = writer.GetOpenResult(); code != KEL::KEL_OK) {
        return Fail("cannot create '" + options.output + "': " + writer.GetLastError() +
                    (code == KEL::KEL_ERR_ALREADY_EXISTS ? " (pass --overwrite to replace it)" : ""));
    }
    std::uint64_t kept = 0;
    std::uint64_t lost = 0;
    const auto listed = reader.ListAtoms();
    for (std::uint64_t i = 0; i < listed.size(); ++i) {
        const auto atom = reader.GetAtomAt(i);
        if (!atom) {
            ++lost;
            continue;
        }
        if (const KEL::KelErrorCode code = writer.SerializeAtom(atom); code != KEL::KEL_OK) {
            return Fail("writing '" + options.output + "' failed: " + writer.GetLastError());
        }
        ++kept;
    }
    if (const KEL::KelErrorCode code = writer.Close(); code != KEL::KEL_OK) {
        return Fail("closing '" + options.output + "' failed: " + writer.GetLastError());
    }
    const KEL::ContainerDamageReport& damage = reader.GetDamageReport();
    std::cout << "Recovered " << kept << " atom(s) of " << options.input << " into " << options.output << "\n";
    if (lost > 0 || damage.skippedRecords > 0) {
        std::cout << "Left out: " << lost << " damaged atom(s); " << damage.skippedBytes
                  << " damaged byte(s) held no intact record\n";
    }
    for (const KEL::ReaderDamage& d : reader.GetDamage()) {
        if (d.atomKnown) {
            std::cout << "  stream " << d.streamId << " frame " << d.frameNr << " at offset " << d.offset << ": "
                      << d.reason << "\n";
        }
    }
    return kExitOk;
}

}  // namespace

Command AddRecoverCommand(CLI::App& root, const GlobalOptions& /*global*/) {
    auto options = std::make_shared<RecoverOptions>();
    CLI::App* app = root.add_subcommand(
        "recover", "Rewrite an unclosed or damaged file into a closed one holding every intact atom as stored");
    app->add_option("FILE", options->input, "The .kel file to recover")->required();
    app->add_option("-o,--output", options->output, "The file to write")->required()->type_name("OUT");
    app->add_flag("--overwrite", options->overwrite, "Replace the output file if it exists");
    return {app, [options] { return RunRecover(*options); }};
}

}  // namespace KelTool
