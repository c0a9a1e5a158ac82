#pragma once

#include <KEL/KelErrorCode.h>
#include <KEL/ReadKEL2File.h>
#include <KelCommon/Export.h>

#include <cstdint>
#include <string>
#include <vector>

namespace KEL {

// One layer of a stream's first atom.
struct LayerSummary {
    std::string type;     // the layer type's short name ("TextureRGBA")
    std::string purpose;  // purpose alias, or the GUID text when it has none
    std::uint16_t version = 0;
    std::uint64_t payloadBytes = 0;
    std::string detail;  // e.g. "320x240" for images, "256 vertices, 510 triangles" for meshes
};

// What the blobs of one layer type take in a stream: their own sizes and
// the bytes they are stored in (less when compressed).
struct StorageSummary {
    std::string type;          // the layer type's short name ("TextureRGBA"; "Unknown" for types this host lacks)
    std::uint64_t layers = 0;  // layers of this type in the stream's atoms
    std::uint64_t blobBytes = 0;
    std::uint64_t storedBlobBytes = 0;

    // blobBytes / storedBlobBytes (1 for nothing stored).
    double Ratio() const noexcept {
        return storedBlobBytes == 0 ? 1.0 : static_cast<double>(blobBytes) / static_cast<double>(storedBlobBytes);
    }
};

struct StreamSummary {
    std::uint16_t id = 0;
    std::uint32_t frames = 0;
    std::uint32_t firstFrameNr = 0;
    std::uint32_t lastFrameNr = 0;
    std::int64_t firstTimeStamp = 0;  // microseconds
    std::int64_t lastTimeStamp = 0;
    std::uint64_t storedBytes = 0;  // what the stream's records take in the file
    // Frames missing from the time line (gaps of more than 1.5 frame
    // intervals, see AnalyzeTimeline): dropped, or not recorded (between
    // snapshots).
    std::uint64_t missingFrames = 0;
    std::string name;  // from the stream information, when present
    double frameRate = 0.0;
    std::vector<LayerSummary> firstAtomLayers;
    bool hasThumbnail = false;
    std::uint32_t thumbnailWidth = 0;
    std::uint32_t thumbnailHeight = 0;
    // Per layer type, in order of first appearance, from every atom's layer
    // tables.
    std::vector<StorageSummary> storage;
};

// What a container file holds, as `kel info`, the report and the Python
// module's `summary()` show it.
struct ContainerSummary {
    std::string path;
    KelErrorCode openResult = KEL_OK;  // non-zero: the file could not be opened
    std::string error;
    std::uint64_t fileSize = 0;
    std::uint16_t formatVersion = 0;
    std::uint64_t atoms = 0;
    std::uint32_t frames = 0;  // frames a source plays (ReadKEL2File::GetNumPlayableFrames)
    ContainerDamageReport damage;
    bool closed = false;       // the file ends with its index
    std::uint64_t fileId = 0;  // the identity its writer gave it
    std::int64_t createdUs = 0;
    std::vector<StreamSummary> streams;
    std::uint64_t blobBytes = 0;  // over every stream and layer
    std::uint64_t storedBlobBytes = 0;

    bool Ok() const noexcept { return openResult == KEL_OK; }
    bool HasThumbnail() const noexcept;
};

// Opens `path` with the container reader and summarises it from its index
// (or record headers); of the payloads only each stream's first atom is
// read, for its layers, and the layer tables of every atom (a few KiB each),
// for what the blobs take. Never throws; a file that cannot be opened gives a
// summary with `openResult` and `error` set.
KEL_API ContainerSummary SummarizeContainer(const std::string& path);
// The same for a reader that is already open.
KEL_API ContainerSummary SummarizeOpenContainer(ReadKEL2File& reader);

// Why a reader's Initialize failed: its last error, or the code's name.
KEL_API std::string OpenFailureReason(const ReadKEL2File& reader, KelErrorCode code);

}  // namespace KEL
