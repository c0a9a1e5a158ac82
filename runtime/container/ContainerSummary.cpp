#include <KEL/ContainerSummary.h>
#include <KEL/DataLayerRegistry.h>
#include <KEL/DataTypeMesh.h>
#include <KEL/DataTypeStreamInfo.h>
#include <KEL/DataTypeTextureRGBA.h>
#include <KEL/KELPurposeGuids.h>
#include <KEL/PurposeGuids.h>
#include <KEL/Timeline.h>

#include <algorithm>
#include <map>
#include <sstream>

namespace KEL {

std::string OpenFailureReason(const ReadKEL2File& reader, KelErrorCode code) {
    return reader.GetLastError().empty() ? KelErrorCodeName(code) : reader.GetLastError();
}

namespace {

std::string TypeNameOf(const KelCommon::Guid& type) {
    const auto layer = DataLayerRegistry::Instance().Create(type);
    return layer ? layer->TypeName() : "Unknown";
}

LayerSummary SummarizeLayer(const std::shared_ptr<DataLayer>& layer) {
    LayerSummary s;
    s.type = layer->TypeName();
    s.purpose = KELPurposeGuids::Describe(layer->GetPurposeGuid()).str();
    s.version = layer->GetVersion();
    s.payloadBytes = layer->PayloadSize();
    if (auto image = LayerCast<DataTypeTextureRGBA>(layer)) {
        s.detail = std::to_string(image->GetWidth()) + "x" + std::to_string(image->GetHeight());
    } else if (auto mesh = LayerCast<DataTypeMesh>(layer)) {
        s.detail = std::to_string(mesh->GetNumVertices()) + " vertices, " + std::to_string(mesh->GetNumTriangles()) +
                   " triangles";
    } else if (auto info = LayerCast<DataTypeStreamInfo>(layer)) {
        std::ostringstream d;
        d << "'" << info->GetName() << "', " << info->GetNumFrames() << " frames at " << info->GetFrameRate() << " fps";
        s.detail = d.str();
    }
    return s;
}

// Frame numbers, time stamps and sizes come from the index (or the record
// headers); only the first atom is read, for its layers.
void SummarizeStream(ReadKEL2File& reader, std::uint16_t id, StreamSummary* s) {
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
            if (auto info = LayerCast<DataTypeStreamInfo>(layer); info && s->name.empty()) {
                s->name = info->GetName();
                s->frameRate = info->GetFrameRate();
            }
        }
        auto thumb = LayerCast<DataTypeTextureRGBA>(
            atom->GetDataLayer(PurposeGuid_THUMBNAIL, DataTypeTextureRGBA::TheTypeGuid(), false));
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
    ReadKEL2File reader(path.c_str());
    const KelErrorCode code = reader.Initialize();
    if (code != KEL_OK) {
        ContainerSummary summary;
        summary.path = path;
        summary.openResult = code;
        summary.error = OpenFailureReason(reader, code);
        return summary;
    }
    return SummarizeOpenContainer(reader);
}

ContainerSummary SummarizeOpenContainer(ReadKEL2File& reader) {
    ContainerSummary summary;
    summary.path = reader.GetFilePath();
    summary.fileSize = reader.GetFileSize();
    summary.formatVersion = reader.GetFormatVersion();
    summary.atoms = reader.GetNumAtoms();
    summary.damage = reader.GetDamageReport();
    summary.closed = reader.IsClosed();
    summary.fileId = reader.GetFileId();
    summary.createdUs = reader.GetCreationTime();
    std::map<std::uint16_t, std::size_t> streamIndex;
    for (int i = 0; i < reader.GetNumStreams(); ++i) {
        StreamSummary s;
        SummarizeStream(reader, reader.GetStreamId(i), &s);
        streamIndex[s.id] = summary.streams.size();
        summary.streams.push_back(std::move(s));
    }
    const auto listing = reader.ListAtoms();
    for (std::uint64_t i = 0; i < listing.size(); ++i) {
        auto& storage = summary.streams[streamIndex.at(listing[i].streamId)].storage;
        for (const LayerStorage& layer : reader.GetLayerStorage(i)) {
            const std::string type = TypeNameOf(layer.type);
            auto it =
                std::find_if(storage.begin(), storage.end(), [&](const StorageSummary& s) { return s.type == type; });
            if (it == storage.end()) {
                it = storage.insert(storage.end(), StorageSummary{type});
            }
            ++it->layers;
            it->blobBytes += layer.blobBytes;
            it->storedBlobBytes += layer.storedBlobBytes;
            summary.blobBytes += layer.blobBytes;
            summary.storedBlobBytes += layer.storedBlobBytes;
        }
    }
    summary.frames = reader.GetNumPlayableFrames();
    return summary;
}

}  // namespace KEL
