#include "harness/ContainerOracle.h"

#include <map>
#include <utility>

namespace kel_harness {

std::vector<std::string> CheckContainer(const std::string& path, const std::vector<WrittenAtom>& written,
                                        KEL::ReaderOptions options) {
    std::vector<std::string> problems;
    options.logDamage = false;
    KEL::ReadKEL2File reader(path.c_str(), options);
    if (const KEL::KelErrorCode code = reader.Initialize(); code != KEL::KEL_OK) {
        problems.push_back("the file does not open (code " + std::to_string(code) + "): " + reader.GetLastError());
        return problems;
    }
    std::map<std::pair<std::uint16_t, std::uint32_t>, const WrittenAtom*> byKey;
    for (const auto& w : written) {
        byKey[{w.model->stream, w.model->frame}] = &w;
    }
    std::map<std::pair<std::uint16_t, std::uint32_t>, bool> listed;
    for (int s = 0; s < reader.GetNumStreams(); ++s) {
        const std::uint16_t stream = reader.GetStreamId(s);
        for (const std::uint32_t frame : reader.GetFrameNumbers(stream)) {
            const auto key = std::make_pair(stream, frame);
            if (!listed.emplace(key, true).second) {
                problems.push_back("stream " + std::to_string(stream) + " frame " + std::to_string(frame) +
                                   " is listed twice");
                continue;
            }
            const auto it = byKey.find(key);
            if (it == byKey.end()) {
                problems.push_back("stream " + std::to_string(stream) + " frame " + std::to_string(frame) +
                                   " was never written");
                continue;
            }
            if (it->second->fate == Fate::kAbsent) {
                problems.push_back("failed " + Describe(*it->second->model) + " is listed");
                continue;
            }
            const auto atom = reader.GetFrameAtom(stream, frame);
            if (!atom) {
                if (it->second->fate == Fate::kRequired) {
                    problems.push_back("acknowledged " + Describe(*it->second->model) + " is listed but unreadable");
                }
                continue;
            }
            if (auto why = DifferenceFrom(*it->second->model, *atom)) {
                problems.push_back("altered: " + *why);
            }
        }
    }
    for (const auto& w : written) {
        if (w.fate == Fate::kRequired && listed.count({w.model->stream, w.model->frame}) == 0) {
            problems.push_back("acknowledged " + Describe(*w.model) + " is missing");
        }
    }
    return problems;
}

}  // namespace kel_harness
