#include <KEL/ContainerJson.h>

#include <cstdio>

namespace KEL {

nlohmann::ordered_json ToJson(const ContainerDamageReport& damage) {
    return {{"damaged", damage.Damaged()},
            {"indexUsed", damage.indexUsed},
            {"recovered", damage.recovered},
            {"checkpointUsed", damage.checkpointUsed},
            {"headerDamaged", damage.headerDamaged},
            {"skippedBytes", damage.skippedBytes},
            {"skippedRecords", damage.skippedRecords},
            {"foreignRecords", damage.foreignRecords},
            {"validRecords", damage.validRecords},
            {"truncatedTailBytes", damage.truncatedTailBytes}};
}

nlohmann::ordered_json ToJson(const ContainerSummary& summary) {
    nlohmann::ordered_json j;
    j["path"] = summary.path;
    if (!summary.Ok()) {
        j["ok"] = false;
        j["errorCode"] = summary.openResult;
        j["error"] = summary.error;
        return j;
    }
    j["ok"] = true;
    j["fileSize"] = summary.fileSize;
    j["formatVersion"] = summary.formatVersion;
    j["atoms"] = summary.atoms;
    j["frames"] = summary.frames;
    j["hasThumbnail"] = summary.HasThumbnail();
    j["closed"] = summary.closed;
    char id[17];
    std::snprintf(id, sizeof id, "%016llx", static_cast<unsigned long long>(summary.fileId));
    j["fileId"] = id;
    j["created"] = summary.createdUs;
    j["damage"] = ToJson(summary.damage);
    auto streams = nlohmann::ordered_json::array();
    for (const auto& s : summary.streams) {
        nlohmann::ordered_json js;
        js["id"] = s.id;
        js["name"] = s.name;
        js["frames"] = s.frames;
        js["frameRate"] = s.frameRate;
        js["firstFrameNr"] = s.firstFrameNr;
        js["lastFrameNr"] = s.lastFrameNr;
        js["firstTimeStamp"] = s.firstTimeStamp;
        js["lastTimeStamp"] = s.lastTimeStamp;
        js["durationSeconds"] = static_cast<double>(s.lastTimeStamp - s.firstTimeStamp) / 1e6;
        js["storedBytes"] = s.storedBytes;
        js["missingFrames"] = s.missingFrames;
        js["hasThumbnail"] = s.hasThumbnail;
        if (s.hasThumbnail) {
            js["thumbnail"] = {{"width", s.thumbnailWidth}, {"height", s.thumbnailHeight}};
        }
        auto layers = nlohmann::ordered_json::array();
        for (const auto& l : s.firstAtomLayers) {
            layers.push_back({{"type", l.type},
                              {"purpose", l.purpose},
                              {"version", l.version},
                              {"payloadBytes", l.payloadBytes},
                              {"detail", l.detail}});
        }
        js["firstAtomLayers"] = std::move(layers);
        auto storage = nlohmann::ordered_json::array();
        for (const auto& st : s.storage) {
            storage.push_back({{"type", st.type},
                               {"layers", st.layers},
                               {"blobBytes", st.blobBytes},
                               {"storedBlobBytes", st.storedBlobBytes},
                               {"ratio", st.Ratio()}});
        }
        js["storage"] = std::move(storage);
        streams.push_back(std::move(js));
    }
    j["streams"] = std::move(streams);
    j["blobBytes"] = summary.blobBytes;
    j["storedBlobBytes"] = summary.storedBlobBytes;
    return j;
}

nlohmann::ordered_json ToJson(const ContainerVerification& v, const std::string& path) {
    nlohmann::ordered_json j;
    j["path"] = path;
    j["verdict"] = v.Verdict();
    j["intact"] = v.IsIntact();
    j["openResult"] = v.openResult;
    j["openError"] = v.openError;
    j["formatVersion"] = v.formatVersion;
    j["fileSize"] = v.fileSize;
    j["headerDamaged"] = v.headerDamaged;
    j["indexPresent"] = v.indexPresent;
    j["indexValid"] = v.indexValid;
    j["atomRecords"] = v.atomRecords;
    j["damagedRecords"] = v.damagedRecords;
    j["damagedBytes"] = v.damagedBytes;
    j["foreignRecords"] = v.foreignRecords;
    j["truncatedTailBytes"] = v.truncatedTailBytes;
    j["recoverableAtoms"] = v.recoverableAtoms;
    j["streams"] = v.streams;
    auto problems = nlohmann::ordered_json::array();
    for (const auto& p : v.problems) {
        problems.push_back({{"offset", p.offset}, {"length", p.length}, {"what", p.what}});
    }
    j["problems"] = std::move(problems);
    auto warnings = nlohmann::ordered_json::array();
    for (const auto& w : v.warnings) {
        warnings.push_back({{"offset", w.offset}, {"what", w.what}});
    }
    j["warnings"] = std::move(warnings);
    return j;
}

}  // namespace KEL
