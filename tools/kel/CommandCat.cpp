#include <KEL/ReadKEL2File.h>

#include <iomanip>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

#include "Command.h"

namespace KelTool {

namespace {

struct CatOptions {
    std::string path;
    std::optional<std::uint32_t> stream;
    bool json = false;
};

int RunCat(const CatOptions& options) {
    KEL::ReadKEL2File reader(options.path.c_str());
    if (const KEL::KelErrorCode code = reader.Initialize(); code != KEL::KEL_OK) {
        return Fail(CannotOpen(options.path, reader, code));
    }
    const auto listed = reader.ListAtoms();
    const std::int64_t origin = listed.empty() ? 0 : listed.front().timeStamp;
    nlohmann::ordered_json atoms = nlohmann::ordered_json::array();
    std::uint64_t damaged = 0;
    if (!options.json) {
        std::cout << "stream    frame        time        bytes  layers\n";
    }
    for (std::uint64_t i = 0; i < listed.size(); ++i) {
        const KEL::AtomListing& a = listed[i];
        if (options.stream && a.streamId != *options.stream) {
            continue;
        }
        const auto atom = reader.GetAtomAt(i);
        std::uint64_t bytes = 0;
        std::string layers;
        nlohmann::ordered_json layerList = nlohmann::ordered_json::array();
        if (atom) {
            for (const auto& layer : atom->GetAllDataLayers()) {
                bytes += layer->PayloadSize();
                layers += (layers.empty() ? "" : ",") + layer->TypeName();
                layerList.push_back(layer->TypeName());
            }
        } else {
            ++damaged;
        }
        const double seconds = static_cast<double>(a.timeStamp - origin) / 1e6;
        if (options.json) {
            atoms.push_back({{"stream", a.streamId},
                             {"frame", a.frameNr},
                             {"timeStamp", a.timeStamp},
                             {"seconds", seconds},
                             {"damaged", atom == nullptr},
                             {"payloadBytes", bytes},
                             {"layers", layerList}});
        } else {
            std::cout << std::setw(6) << a.streamId << std::setw(9) << a.frameNr << std::setw(12) << std::fixed
                      << std::setprecision(6) << seconds << std::setw(13) << bytes << "  "
                      << (atom ? layers : std::string("DAMAGED")) << "\n";
        }
    }
    if (options.json) {
        std::cout << atoms.dump(2) << "\n";
    }
    if (damaged > 0) {
        return Fail(std::to_string(damaged) + " atom(s) of '" + options.path + "' are damaged");
    }
    return kExitOk;
}

}  // namespace

Command AddCatCommand(CLI::App& root, const GlobalOptions& /*global*/) {
    auto options = std::make_shared<CatOptions>();
    CLI::App* app = root.add_subcommand(
        "cat", "List the atoms of a container file in file order: stream, frame, time, payload bytes, layers");
    app->add_option("FILE", options->path, "The .kel file")->required();
    app->add_option("--stream", options->stream, "Only this stream")->type_name("N")->check(CLI::Range(0, 65535));
    app->add_flag("--json", options->json, "Print JSON");
    return {app, [options] { return RunCat(*options); }};
}

}  // namespace KelTool
