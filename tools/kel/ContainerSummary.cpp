#include "ContainerSummary.h"

#include <KEL/DataTypeMesh.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/KELPurposeGuids.h>
#include <KEL/PurposeGuids.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <iomanip>
#include <limits>
#include <sstream>

#include "Command.h"
#include "Timeline.h"

namespace KelTool {

namespace {

namespace fs = std::filesystem;

LayerSummary SummarizeLayer(const std::shared_ptr<KEL::DataLayer>& layer) {
    LayerSummary s;
    s.type = layer->TypeName();
    s.purpose = KEL::KELPurposeGuids::Describe(layer->GetPurposeGuid()).str();
    s.version = layer->GetVersion();
    s.payloadBytes = layer->PayloadSize();
    if (auto image = KEL::LayerCast<KEL::DataTypeTextureRGBA>(layer)) {
        s.detail = std::to_string(image->GetWidth()) + "x" + std::to_string(image->GetHeight());
    } else if (auto mesh = KEL::LayerCast<KEL::DataTypeMesh>(layer)) {
        s.detail = std::to_string(mesh->GetNumVertices()) + " vertices, " + std::to_string(mesh->GetNumTriangles()) +
                   " triangles";
    } else if (auto info = KEL::LayerCast<KEL::DataTypeStreamInfo>(layer)) {
        std::ostringstream d;
        d << "'" << info->GetName() << "', " << info->GetNumFrames() << " frames at " << info->GetFrameRate() << " fps";
        s.detail = d.str();
    }
    return s;
}

// Frame numbers, time stamps and sizes come from the index (or the record
// headers); only the first atom is read, for its layers.
void SummarizeStream(KEL::ReadKEL2File& reader, std::uint16_t id, StreamSummary* s) {
    s->id = id;
    s->frames = reader.GetNumFrames(id);
    s->storedBytes = reader.GetStoredBytes(id);
    const auto numbers = reader.GetFrameNumbers(id);
    if (!numbers.empty()) {
        s->firstFrameNr = numbers.front();
        s->lastFrameNr = numbers.back();
    }
    auto stamps = reader.GetTimeStamps(id);
    if (!stamps.empty()) {
        s->firstTimeStamp = *std::min_element(stamps.begin(), stamps.end());
        s->lastTimeStamp = *std::max_element(stamps.begin(), stamps.end());
    }
    s->missingFrames = AnalyzeTimeline(std::move(stamps)).dropped;
    for (const std::uint32_t nr : numbers) {
        const auto atom = reader.GetFrameAtom(id, nr);
        if (!atom) {
            continue;  // damaged: the next one describes the stream
        }
        for (const auto& layer : atom->GetAllDataLayers()) {
            s->firstAtomLayers.push_back(SummarizeLayer(layer));
            if (auto info = KEL::LayerCast<KEL::DataTypeStreamInfo>(layer); info && s->name.empty()) {
                s->name = info->GetName();
                s->frameRate = info->GetFrameRate();
            }
        }
        auto thumb = KEL::LayerCast<KEL::DataTypeTextureRGBA>(
            atom->GetDataLayer(KEL::PurposeGuid_THUMBNAIL, KEL::DataTypeTextureRGBA::TheTypeGuid(), false));
        if (thumb) {
            s->hasThumbnail = true;
            s->thumbnailWidth = thumb->GetWidth();
            s->thumbnailHeight = thumb->GetHeight();
        }
        break;
    }
}

}  // namespace

bool ContainerSummary::HasThumbnail() const noexcept {
    return std::any_of(streams.begin(), streams.end(), [](const StreamSummary& s) { return s.hasThumbnail; });
}

ContainerSummary SummarizeContainer(const std::string& path) {
    KEL::ReadKEL2File reader(path.c_str());
    const KEL::KelErrorCode code = reader.Initialize();
    if (code != KEL::KEL_OK) {
        ContainerSummary summary;
        summary.path = path;
        summary.openResult = code;
        summary.error = OpenFailureReason(reader, code);
        return summary;
    }
    return SummarizeOpenContainer(reader);
}

ContainerSummary SummarizeOpenContainer(KEL::ReadKEL2File& reader) {
    ContainerSummary summary;
    summary.path = reader.GetFilePath();
    summary.fileSize = reader.GetFileSize();
    summary.formatVersion = reader.GetFormatVersion();
    summary.atoms = reader.GetNumAtoms();
    summary.damage = reader.GetDamageReport();
    summary.closed = reader.IsClosed();
    summary.fileId = reader.GetFileId();
    summary.createdUs = reader.GetCreationTime();
    std::uint32_t shortest = std::numeric_limits<std::uint32_t>::max();
    for (int i = 0; i < reader.GetNumStreams(); ++i) {
        StreamSummary s;
        SummarizeStream(reader, reader.GetStreamId(i), &s);
        shortest = std::min(shortest, s.frames);
        summary.streams.push_back(std::move(s));
    }
    summary.frames = summary.streams.empty() ? 0 : shortest;
    return summary;
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
    j["damage"] = {{"indexUsed", summary.damage.indexUsed},
                   {"recovered", summary.damage.recovered},
                   {"checkpointUsed", summary.damage.checkpointUsed},
                   {"headerDamaged", summary.damage.headerDamaged},
                   {"skippedBytes", summary.damage.skippedBytes},
                   {"skippedRecords", summary.damage.skippedRecords},
                   {"foreignRecords", summary.damage.foreignRecords},
                   {"validRecords", summary.damage.validRecords},
                   {"truncatedTailBytes", summary.damage.truncatedTailBytes}};
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
        streams.push_back(std::move(js));
    }
    j["streams"] = std::move(streams);
    return j;
}

std::string FormatBytes(std::uint64_t bytes) {
    static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    auto value = static_cast<double>(bytes);
    std::size_t unit = 0;
    while (value >= 1024.0 && unit + 1 < std::size(kUnits)) {
        value /= 1024.0;
        ++unit;
    }
    char text[32];
    if (unit == 0) {
        std::snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
    } else {
        std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
    }
    return text;
}

std::string FormatDuration(std::int64_t microseconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f s", static_cast<double>(microseconds) / 1e6);
    return text;
}

void PrintContainerSummary(std::ostream& out, const ContainerSummary& summary) {
    out << summary.path << "\n";
    if (!summary.Ok()) {
        out << "  cannot open: " << summary.error << "\n";
        return;
    }
    out << "  size:      " << FormatBytes(summary.fileSize) << " (" << summary.fileSize << " bytes)\n";
    out << "  format:    " << summary.formatVersion << "\n";
    out << "  atoms:     " << summary.atoms << " in " << summary.streams.size() << " stream(s), " << summary.frames
        << " playable frame(s)\n";
    out << "  thumbnail: " << (summary.HasThumbnail() ? "yes" : "no") << "\n";
    out << "  closed:    "
        << (summary.closed ? "yes" : "no (its writer is still writing, or died: listed from the record headers)")
        << "\n";
    const auto& d = summary.damage;
    if (d.Damaged()) {
        out << "  damage:    " << (d.headerDamaged ? "file header damaged (the records name their file); " : "")
            << d.skippedRecords << " record(s) and " << d.skippedBytes << " byte(s) skipped";
        if (d.foreignRecords > 0) {
            out << " (" << d.foreignRecords << " record(s) of another file among them)";
        }
        out << ", " << d.truncatedTailBytes << " byte(s) of an incomplete tail (run `kel verify`)\n";
    }
    if (summary.createdUs != 0) {
        const std::time_t created = static_cast<std::time_t>(summary.createdUs / 1'000'000);
        std::tm utc{};
        gmtime_r(&created, &utc);
        out << "  created:   " << std::put_time(&utc, "%Y-%m-%d %H:%M:%S UTC") << "\n";
    }
    std::int64_t origin = summary.streams.empty() ? 0 : summary.streams.front().firstTimeStamp;
    for (const auto& s : summary.streams) {
        origin = std::min(origin, s.firstTimeStamp);
    }
    out << "\n  " << std::left << std::setw(7) << "stream" << std::setw(8) << "frames" << std::setw(14) << "numbers"
        << std::setw(12) << "duration" << std::setw(9) << "missing" << std::setw(12) << "stored"
        << "name\n";
    for (const auto& s : summary.streams) {
        out << "  " << std::setw(7) << s.id << std::setw(8) << s.frames << std::setw(14)
            << (std::to_string(s.firstFrameNr) + ".." + std::to_string(s.lastFrameNr)) << std::setw(12)
            << FormatDuration(s.lastTimeStamp - s.firstTimeStamp) << std::setw(9) << s.missingFrames << std::setw(12)
            << FormatBytes(s.storedBytes) << s.name << "\n";
    }
    for (const auto& s : summary.streams) {
        out << "\n  stream " << s.id << ", first atom layers:\n";
        for (const auto& l : s.firstAtomLayers) {
            out << "    " << std::setw(16) << l.type << std::setw(26) << l.purpose << "v" << std::setw(4) << l.version
                << std::setw(12) << FormatBytes(l.payloadBytes) << l.detail << "\n";
        }
        out << "    time: " << std::fixed << std::setprecision(3)
            << static_cast<double>(s.firstTimeStamp - origin) / 1e6 << " s .. "
            << static_cast<double>(s.lastTimeStamp - origin) / 1e6 << " s after the file's first atom\n"
            << std::defaultfloat;
    }
    out << std::right;
}

void PrintDirectorySummary(std::ostream& out, const std::string& directory,
                           const std::vector<ContainerSummary>& summaries) {
    out << directory << ": " << summaries.size() << " container file(s)\n\n";
    out << "  " << std::left << std::setw(32) << "file" << std::setw(9) << "streams" << std::setw(8) << "frames"
        << std::setw(12) << "size" << std::setw(12) << "duration"
        << "thumbnail\n";
    std::uint64_t totalBytes = 0;
    std::uint64_t totalAtoms = 0;
    for (const auto& s : summaries) {
        const std::string name = fs::path(s.path).filename().string();
        if (!s.Ok()) {
            out << "  " << std::setw(32) << name << "cannot open: " << s.error << "\n";
            continue;
        }
        std::int64_t duration = 0;
        for (const auto& st : s.streams) {
            duration = std::max(duration, st.lastTimeStamp - st.firstTimeStamp);
        }
        out << "  " << std::setw(32) << name << std::setw(9) << s.streams.size() << std::setw(8) << s.frames
            << std::setw(12) << FormatBytes(s.fileSize) << std::setw(12) << FormatDuration(duration)
            << (s.HasThumbnail() ? "yes" : "no") << "\n";
        totalBytes += s.fileSize;
        totalAtoms += s.atoms;
    }
    out << "\n  total: " << FormatBytes(totalBytes) << ", " << totalAtoms << " atoms\n" << std::right;
}

std::vector<std::string> ListContainerFiles(const std::string& directory) {
    std::vector<std::string> files;
    std::error_code ec;
    for (fs::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code typeEc;
        if (it->path().extension() == ".kel" && it->is_regular_file(typeEc)) {
            files.push_back(it->path().string());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace KelTool
